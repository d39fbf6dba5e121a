// Strings, byte streams, strings on them, the formatter and the error channel.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "i4min/memory/malloc4.h"
#include "tests/support/bytes.h"
#include "tests/support/files.h"

// The address sanitizer's allocator fails like the system's, so that the tests can run out of memory.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using namespace std::string_literals;

TEST(Strings, CompareBySignedCharacterAndNullFirst) {
    const struct {
        const char *left, *right;
        int exact, folded;
    } cases[] = {{nullptr, nullptr, 0, 0}, {nullptr, "", -1, -1}, {"", nullptr, 1, 1},
                 {"ab", "abc", -1, -1},    {"Tag", "tAG", -1, 0}, {"\xe9", "a", -1, -1},
                 {"[", "a", -1, 1},        {"\xe4", "\xc4", 1, 1}};
    for (const auto& c : cases) {
        EXPECT_EQ(i4_strcmp(c.left, c.right), c.exact) << c.left << "," << c.right;
        EXPECT_EQ(i4_stricmp(c.left, c.right), c.folded) << c.left << "," << c.right;
    }
}

TEST(Strings, AreCutReadAndSurviveBeingTheirOwnSource) {
    char out[8] = "x";
    u32 cursor = 0;
    const std::pair<const char*, char> lines[] = {{"one", '\r'}, {"two w", '\n'}, {"last", 0}, {"", 0}};
    for (const auto& [line, stop] : lines) {
        EXPECT_EQ(i4_getline(out, "\r\n\none\r\ntwo w\n\nlast", cursor), stop);
        EXPECT_STREQ(out, line);
    }
    const char* hay = "Hello OUT THHere";
    EXPECT_EQ(stristr("there", "there!"), nullptr);
    EXPECT_EQ(i4_stristr_lower(hay, "here"), hay + 12);
    const std::pair<const char*, i32> numbers[] = {{"-17x9", -17}, {" 5", 0}, {"+5", 0}, {"4294967297", 1}};
    for (const auto& [text, value] : numbers) EXPECT_EQ(i4_atoi(text), value) << text;
    EXPECT_STREQ(i4_strncpy(out, "abcdefgh", 4), "abc");
    EXPECT_STREQ(i4_strncpy(out, "x", 0), "abc");

    i4_string null(nullptr);
    EXPECT_NE(null, i4_string());
    null += nullptr;
    EXPECT_TRUE(null.isNull());
    null += "grown";
    EXPECT_EQ(null, "grown");
    i4_string s("Some TEXT");
    s = s.c_str() + 5;
    s += s.c_str();
    s.format("%s-%S", s.c_str() + 4, &s);
    EXPECT_EQ(s, "TEXT-TEXTTEXT");
}

std::string errorOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const i4_err& error) {
        return error.message();
    }
    return "no error";
}

std::string bytesOf(i4_ram_file_class& stream) {
    return {reinterpret_cast<const char*>(stream.buffer()), stream.size()};
}

// A stream that has all its bytes but delivers a few at a time, like a socket.
class Drip : public BytesFile {
  public:
    Drip(std::string_view bytes, std::size_t most)
        : BytesFile(Bytes(bytes.begin(), bytes.end())), most_(most) {}
    i32 read(std::span<u8> to) override { return BytesFile::read(to.first(std::min(to.size(), most_))); }

  private:
    const std::size_t most_;
};

TEST(RamStream, GrowsByWholeStepsOrIsCut) {
    const struct {
        u32 capacity, step, write, seek, newCapacity, used;
    } cases[] = {{0, 512, 1000, 0, 1024, 1000},
                 {0, 512, 0, 5000, 5120, 5000},
                 {4, 0, 10, 0, 4, 4},
                 {4, 0, 0, 10, 4, 4},
                 {4, 3, 5, 0, 7, 5}};
    for (const auto& c : cases) {
        i4_ram_file_class stream(c.capacity ? i4_malloc(c.capacity) : nullptr, c.capacity, c.step);
        EXPECT_EQ(stream.write(i4_bytes(std::string(c.write, 'x'))), c.write > 0 ? i32(c.used) : 0);
        stream.seek(std::max(c.seek, stream.tell()));
        EXPECT_EQ(std::pair(stream.tell(), stream.size()), std::pair(c.used, c.used));
        EXPECT_EQ(stream.capacity(), c.newCapacity) << c.write << "," << c.seek;
        i4_free(stream.buffer());
    }
    i4_owned_ram_file sparse(16);
    sparse.write(i4_bytes("ab"));
    sparse.seek(1);
    sparse.seek(20);
    sparse.write_8('c');
    EXPECT_EQ(bytesOf(sparse), "ab"s + std::string(18, '\0') + "c");
}

TEST(Stream, ShortReadsAreLoud) {
    EXPECT_EQ(Drip("\xef\xcd\xab\x89", 1).read_32(), 0x89abcdef);
    EXPECT_EQ(errorOf([] { Drip("", 2).read_8(); }), "read_8 error");
    EXPECT_EQ(errorOf([] { Drip("x", 2).read_16(); }), "read_16 error");
    EXPECT_EQ(errorOf([] { Drip("xxx", 2).read_float(); }), "read_32 error");
}

TEST(Stream, AStringHasOneFormAndRefusesWhatIsNone) {
    const std::string longest(65534, 'q');
    const std::pair<const char*, std::string> forms[] = {
        {"ab", "\x02\0ab"s}, {nullptr, "\0\0"s}, {longest.c_str(), "\xfe\xff" + longest}};
    for (const auto& [text, bytes] : forms) {
        i4_owned_ram_file stream;
        i4_string(text).write(stream);
        EXPECT_EQ(bytesOf(stream), bytes);
        Drip slow(bytes, 7);
        EXPECT_EQ(i4_string(slow), text ? text : "");
    }
    const auto reading = [](const std::string& bytes) {
        return errorOf([&] { i4_string(*std::make_unique<Drip>(bytes, 100000)); });
    };
    EXPECT_EQ(reading("\xff\xff" + std::string(65535, 'x')), "read string error");
    EXPECT_EQ(reading("\x03\0ab"s), "readAll error");
    const auto inTwoReads = [] { i4_string(*std::make_unique<Drip>("abcd", 2), 3); };
    EXPECT_EQ(errorOf(inTwoReads), "read string error");

    u8 block[4];
    i4_ram_file_class cut(block, 4, 0);
    i4_owned_ram_file endless;
    const auto writing = [&](i4_file& file, std::size_t length) {
        return errorOf([&] { i4_write_string(file, std::string(length, 'x').c_str()); });
    };
    EXPECT_EQ(writing(cut, 3), "write string error");
    EXPECT_EQ(writing(cut, 0), "write string error") << "no room for the length";
    EXPECT_EQ(writing(endless, 65535), "write string error");
    EXPECT_EQ(endless.size(), 0U);
}

TEST(Path, IsRewritten) {
    const std::pair<const char*, const char*> cases[] = {
        {"c:/a\\b", "/a/b"}, {"x:/a", "/u/a"}, {"c:\\a", "c:/a"}, {"C:/a", "C:/a"}, {"x:x:x:x:", "/u/u/u/"}};
    for (const auto& [name, expected] : cases) {
        char out[8 + 1] = "????????";
        i4_translate_path(name, out, 8);
        EXPECT_STREQ(out, expected) << name;
        EXPECT_EQ(out[8], 0);
    }
}

TEST(DiskFile, IsOpenedByTheFlagsAndKeepsItsPlaceAndItsName) {
    const TemporaryDirectory folder;
    // The effect of each set of flags on a file that holds "old", and whether it creates a file.
    const struct {
        u32 flags;
        bool creates;
        const char* afterWriting;  // after writing "N" and closing
        bool reads;
    } cases[] = {{1, false, "old", true},  {2, true, "Nld", false}, {3, true, "Nld", true},
                 {6, true, "oldN", false}, {7, true, "oldN", true}, {10, true, "N", false},
                 {11, true, "N", true},    {9, false, "old", true}};
    const std::string path = folder.file("file");
    for (const auto& c : cases) {
        EXPECT_EQ(i4_open(path.c_str(), c.flags) != nullptr, c.creates) << c.flags;
        writeFile(path, "old");
        {
            const auto file = i4_open(path.c_str(), c.flags);
            u8 byte = 0;
            EXPECT_EQ(file->read({&byte, 1}) >= 0, c.reads) << c.flags;
            file->seek(0);
            file->write(i4_bytes("N"));
        }
        EXPECT_EQ(contentOf(path), c.afterWriting) << c.flags;
        std::filesystem::remove(path);
    }

    const std::string odd = folder.file("Max: a\\b");
    const auto file = i4_open_exact(odd.c_str(), I4_FILE_WRITE | I4_FILE_READ);
    file->write(i4_bytes("abcdef"));
    EXPECT_EQ(file->seek(2), 2U);
    EXPECT_EQ(file->size(), 6U);
    EXPECT_EQ(file->read_16(), 'c' + 'd' * 256);
    EXPECT_EQ(file->bytesLeft(), 2U);
    EXPECT_EQ(file->printf("%d%s", 12, "xyz"), 5U);
    EXPECT_EQ(contentOf(odd), "abcd12xyz");
    EXPECT_EQ(i4_open(odd.c_str(), I4_FILE_READ), nullptr) << "this name is rewritten";
}

TEST(Formatter, WritesWhatEachLetterSays) {
    struct Wagon final : i4_printable {
        void print(i4_file* stream) override { stream->printf("<%d>", 7); }
    } wagon;
    const i4_string text("text");
    char out[64];
    const auto expect = [&](const char* expected, auto... arguments) {
        EXPECT_EQ(i4_sprintf(out, arguments...), std::strlen(expected));
        EXPECT_STREQ(out, expected);
    };
    expect("-2147483648 4294967295 0", "%i %u %d", -2147483647 - 1, 0xffffffffU, 0);
    expect("17777777777 deadbeef ffA", "%o %p %x%c", 0x7fffffffU, 0xdeadbeefU, 255, 65);
    expect("[][7]d7%5 abc", "[%f][%d]%ld%d%%%8d %-10.3s", 7, 7, 5, "abc");
    expect("text..", "%S.%S.%s", &text, static_cast<const i4_string*>(nullptr), static_cast<char*>(nullptr));
    expect("<7> NULL", "%I %I", static_cast<i4_printable*>(&wagon), static_cast<i4_printable*>(nullptr));
    expect("end", "end%-12.", 0);
    std::fill_n(out, sizeof out, '?');
    EXPECT_EQ(i4_snprintf(out, 5, "abcdefg%s", "h"), 8U);
    EXPECT_EQ(std::string(out, 6), "abcd\0?"s);
    EXPECT_EQ(i4_snprintf(nullptr, 0, "%d", 123), 3U);
    i4_string big;
    big.format("%s", std::string(1200, 'a').c_str());
    EXPECT_EQ(big.length(), 1200U);
}

TEST(Errors, CarryTextAndPlace) {
    const auto place = [] {
        const char* file = nullptr;
        int line = 0;
        i4_get_file_line(file, line);
        return std::string(file ? file : "nowhere") + ":" + std::to_string(line);
    };
    const int here = __LINE__ + 1;
    EXPECT_EQ(errorOf([] { i4_error()("%s %d", std::string(600, 'x').c_str(), 5); }), std::string(499, 'x'));
    EXPECT_EQ(place(), "../../tests/streams_test:" + std::to_string(here));
    std::thread([&] { EXPECT_EQ(place(), "nowhere:0"); }).join();
    EXPECT_EQ(errorOf([] { i4_realloc(nullptr, std::size_t{1} << 62); }), "out of memory");

    i4_owned_ram_file terminal;
    i4_file* const old = std::exchange(i4_debug_stream, &terminal);
    EXPECT_EQ(i4_warning("there/mod.cpp", 3)("%d left", 2), 0);
    i4_debug_stream = old;
    EXPECT_EQ(bytesOf(terminal), "Warning (there/mod:3) : 2 left\n");
}

}  // namespace
