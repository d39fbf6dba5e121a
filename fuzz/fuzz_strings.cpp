// Strings on a stream, the tokeniser, the line reader and the rewriting of paths, with any bytes.
#include <string>
#include <vector>

#include "fuzz/fuzz.h"
#include "i4min/file/file.h"
#include "i4min/memory/error.h"

namespace {

// A string that can be read is written back as the same bytes, unless a 0 in it has ended it early.
void readStrings(const std::uint8_t* data, u32 size) {
    BytesFile input({data, size});
    try {
        for (u32 start = 0;; start = input.tell()) {
            const i4_string text(input);
            const u32 taken = input.tell() - start;
            require(text.length() + 2 <= taken);
            if (text.length() + 2 < taken) continue;
            i4_owned_ram_file output;
            text.write(output);
            require(std::string_view(reinterpret_cast<char*>(output.buffer()), output.size()) ==
                    std::string_view(reinterpret_cast<const char*>(data) + start, taken));
        }
    } catch (const i4_err&) {
    }
    input.seek(0);
    try {
        const u32 length = input.read_8();
        require(i4_string(input, length).length() <= length);
    } catch (const i4_err&) {
    }
}

// The concatenated tokens are the text without its delimiters.
void tokenise(const std::string& text, std::size_t room) {
    std::string expected;
    for (const char c : text) {
        if (c != ' ' && c != '-') expected += c;
    }
    std::string joined;
    std::vector<char> out(room);
    for (i32 offset = 0; (offset = i4_strtok(text.c_str(), " -", offset, out.data(), room)) != 0;) {
        joined += out.data();
    }
    require(joined == (room < 2 ? "" : expected));
}

// The line reader never writes more bytes than the text has.
void readLines(const std::string& text) {
    std::vector<char> out(text.size() + 1);
    u32 cursor = 0;
    while (i4_getline(out.data(), text.c_str(), cursor)) require(cursor < text.size());
    require(cursor == text.size());
}

}  // namespace

FUZZ_TARGET(strings) {
    readStrings(data, static_cast<u32>(size));
    if (size == 0) return;
    const std::string text(std::string(reinterpret_cast<const char*>(data) + 1, size - 1).c_str());
    tokenise(text, data[0]);
    readLines(text);
    std::vector<char> path(data[0]);
    i4_translate_path(text.c_str(), path.data(), path.size());
    i4_atoi(text.c_str());
}
