// The stream form of a string, on disk and on the wire alike:
//
//   bytes  field
//   2      length n, u16 little-endian, no terminator counted; 0xFFFF is no string
//   n      the bytes, no terminator
#include <utility>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"

namespace {

// With room for the terminator.
std::unique_ptr<char[]> roomFor(std::size_t length) {
    auto text = std::make_unique_for_overwrite<char[]>(length + 1);
    text[length] = 0;
    return text;
}

}  // namespace

i4_string::i4_string(i4_file& stream) {
    const u16 length = stream.read_16();
    if (length == 0xFFFF) i4_error()("read string error");
    stream.expect(length);
    text_ = roomFor(length);
    stream.readAll(i4_room({text_.get(), length}));
}

i4_string::i4_string(i4_file& stream, u32 length) {
    const std::optional<u32> left = stream.bytesLeft();
    if (left && length > *left) i4_error()("read string error");
    text_ = roomFor(length);
    if (length > 0 && stream.read(i4_room({text_.get(), length})) != static_cast<i32>(length)) {
        i4_error()("read string error");
    }
}

void i4_write_string(i4_file& stream, const char* text) {
    const std::string_view bytes = orEmpty(text);
    if (bytes.size() >= 0xFFFF || stream.write_16(static_cast<u16>(bytes.size())) != 2 ||
        !stream.writeAll(i4_bytes(bytes))) {
        i4_error()("write string error");
    }
}

void i4_string::write(i4_file& stream) const { i4_write_string(stream, c_str()); }
