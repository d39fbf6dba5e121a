// The byte streams, strings on them, the formatter and the error channel.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "i4min/memory/malloc4.h"
#include "tests/support/damage.h"
#include "tests/support/files.h"

// The address sanitizer's allocator fails as the system's does, so that running out of memory can be tried.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using namespace std::string_literals;

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

// A stream that has all its bytes but delivers them one read at a time, as a socket does.
class Drip : public i4_file {
  public:
    Drip(std::string bytes, u32 most) : bytes_(std::move(bytes)), most_(most) {}
    i32 read(void* buffer, u32 count) override {
        const std::size_t got = bytes_.copy(static_cast<char*>(buffer), std::min(count, most_), at_);
        at_ += static_cast<u32>(got);
        return static_cast<i32>(got);
    }
    i32 write(const void*, u32 count) override { return static_cast<i32>(std::min(count, most_)); }
    u32 seek(u32 offset) override { return at_ = offset; }
    u32 size() override { return static_cast<u32>(bytes_.size()); }
    u32 tell() override { return at_; }

  private:
    std::string bytes_;
    u32 most_;
    u32 at_ = 0;
};

TEST(RamStream, GrowsByWholeStepsOrIsCut) {
    const std::string thousand(1000, 'x');
    const struct {
        u32 capacity, step, write, seek;
        u32 written, newCapacity, used, position;
    } cases[] = {{0, 512, 1000, 0, 1000, 1024, 1000, 1000},
                 {0, 512, 0, 5000, 0, 5120, 5000, 5000},
                 {4, 0, 10, 0, 4, 4, 4, 4},
                 {4, 0, 0, 10, 0, 4, 4, 4},
                 {4, 0, 4, 2, 4, 4, 4, 2},
                 {4, 3, 5, 0, 5, 7, 5, 5},
                 {4, 3, 0, 11, 0, 13, 11, 11}};
    for (const auto& c : cases) {
        i4_ram_file_class stream(c.capacity ? i4_malloc(c.capacity) : nullptr, c.capacity, c.step);
        EXPECT_EQ(stream.write(thousand.data(), c.write), static_cast<i32>(c.written));
        EXPECT_EQ(c.seek ? stream.seek(c.seek) : stream.tell(), c.position);
        EXPECT_EQ(stream.capacity(), c.newCapacity) << c.write << "," << c.seek;
        EXPECT_EQ(stream.size(), c.used) << c.write << "," << c.seek;
        EXPECT_EQ(stream.tell(), c.position) << c.write << "," << c.seek;
        i4_free(stream.buffer());
    }
}

TEST(RamStream, ReadsWritesAndSharesItsBlock) {
    char block[] = "abcdef";
    i4_ram_file_class stream(block, 6, 0);
    char got[8] = {};
    EXPECT_EQ(stream.read(got, 4), 4);
    const std::unique_ptr<i4_ram_file_class> twin(stream.clone());
    EXPECT_EQ(twin->tell(), 4U);
    EXPECT_EQ(twin->buffer(), stream.buffer());
    EXPECT_EQ(stream.read(got, 8), 2);
    EXPECT_STREQ(got, "efcd");
    EXPECT_EQ(stream.read(got, 8), 0);
    EXPECT_EQ(errorOf([&] { stream.readAll(got, 1); }), "readAll error");
    stream.seek(1);
    stream.write("ZZ", 2);
    EXPECT_STREQ(block, "aZZdef");
    stream.reset(block + 3, 3, 0);
    EXPECT_EQ(bytesOf(stream), "def");

    i4_owned_ram_file sparse(16);
    sparse.write("ab", 2);
    sparse.seek(1);
    sparse.seek(20);
    sparse.write_8('c');
    EXPECT_EQ(bytesOf(sparse), "ab"s + std::string(18, '\0') + "c");
}

TEST(Stream, NumbersAreLittleEndianAndShortReadsAreLoud) {
    i4_owned_ram_file stream;
    EXPECT_EQ(stream.write_8(0xfe), 1U);
    EXPECT_EQ(stream.write_16(0x1234), 2U);
    EXPECT_EQ(stream.write_32(0x89abcdef), 4U);
    EXPECT_EQ(stream.write_float(-0.15625F), 4U);
    EXPECT_EQ(bytesOf(stream), "\xfe\x34\x12\xef\xcd\xab\x89\x00\x00\x20\xbe"s);
    for (const u32 at_a_time : {1U, 100U}) {
        Drip drip(bytesOf(stream), at_a_time);
        EXPECT_EQ(drip.read_8(), 0xfe);
        EXPECT_EQ(drip.read_16(), 0x1234);
        EXPECT_EQ(drip.read_32(), 0x89abcdef);
        EXPECT_EQ(drip.read_float(), -0.15625F);
    }
    const struct {
        u32 length;
        const char* error;
        void (*read)(i4_file&);
    } cases[] = {{0, "read_8 error", [](i4_file& s) { s.read_8(); }},
                 {1, "read_16 error", [](i4_file& s) { s.read_16(); }},
                 {3, "read_32 error", [](i4_file& s) { s.read_32(); }},
                 {3, "read_32 error", [](i4_file& s) { s.read_float(); }},
                 {3, "readAll error", [](i4_file& s) {
                      char four[4];
                      s.readAll(four, 4);
                  }}};
    for (const auto& c : cases) {
        Drip drip(std::string(c.length, 'x'), 2);
        EXPECT_EQ(errorOf([&] { c.read(drip); }), c.error);
    }
}

TEST(StringOnAStream, HasOneFormAndRefusesWhatIsNone) {
    const std::string longest(65534, 'q');
    const std::pair<std::string, std::string> forms[] = {
        {"ab", "\x02\0ab"s}, {"", "\0\0"s}, {longest, "\xfe\xff" + longest}};
    for (const auto& [text, bytes] : forms) {
        i4_owned_ram_file stream;
        i4_string(text.c_str()).write(stream);
        EXPECT_EQ(bytesOf(stream), bytes);
        stream.seek(0);
        EXPECT_EQ(i4_string(stream), text.c_str());
        Drip slow(bytes, 7);
        EXPECT_EQ(i4_string(slow), text.c_str());
        sweepDamage({stream.buffer(), std::min(stream.size(), 64U)}, [](std::span<const u8> damaged) {
            i4_ram_file_class input(const_cast<u8*>(damaged.data()), static_cast<u32>(damaged.size()), 0);
            const std::string error = errorOf([&] {
                const i4_string s(input);
                EXPECT_LE(s.length() + 2, damaged.size());
            });
            if (error != "no error") return;
            EXPECT_EQ(input.tell(), damaged[0] + damaged[1] * 256U + 2U);
        });
    }
    i4_owned_ram_file null;
    i4_string(nullptr).write(null);
    EXPECT_EQ(bytesOf(null), "\0\0"s);

    const auto reading = [](const std::string& bytes) {
        return errorOf([&] {
            Drip drip(bytes, 100000);
            i4_string s(drip);
        });
    };
    EXPECT_EQ(reading("\xff\xff" + std::string(65535, 'x')), "read string error");
    EXPECT_EQ(reading("\x03\0ab"s), "readAll error");
    EXPECT_EQ(reading("\x03"), "read_16 error");
    const auto raw = [](u32 most, u32 length) {
        return errorOf([&] {
            Drip drip("abcd", most);
            EXPECT_EQ(i4_string(drip, length), std::string("abcd").substr(0, length).c_str());
        });
    };
    EXPECT_EQ(raw(100, 3), "no error");
    EXPECT_EQ(raw(100, 0), "no error");
    EXPECT_EQ(raw(2, 3), "read string error") << "one read has to bring them all";
    EXPECT_EQ(raw(100, 5), "read string error");

    char block[4];
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
        {"c:/a\\b", "/a/b"}, {"x:/a", "/u/a"},   {"c:\\a", "c:/a"},    {"C:/a", "C:/a"},       {"c:", "c:"},
        {"X:", "X:"},        {"a/c:/b", "a//b"}, {"Max: a", "Ma/u a"}, {"x:x:x:x:", "/u/u/u/"}};
    for (const auto& [name, expected] : cases) {
        char out[8 + 1] = "????????";
        i4_translate_path(name, out, 8);
        EXPECT_STREQ(out, expected) << name;
        EXPECT_EQ(out[8], 0);
    }
}

TEST(DiskFile, IsOpenedByTheFlagsAndKeepsItsPlaceAndItsName) {
    const TemporaryDirectory folder;
    // What each set of flags does to a file that holds "old", and whether it makes one.
    const struct {
        u32 flags;
        bool creates;
        const char* afterWriting;  // "N" through it, then closed
        bool reads;
    } cases[] = {{1, false, "old", true},  {2, true, "Nld", false}, {3, true, "Nld", true},
                 {6, true, "oldN", false}, {7, true, "oldN", true}, {10, true, "N", false},
                 {11, true, "N", true},    {14, true, "N", false},  {5, false, "old", true},
                 {9, false, "old", true},  {0, true, "old", true}};
    for (const auto& c : cases) {
        const std::string missing = folder.file("missing");
        EXPECT_EQ(i4_open(missing.c_str(), c.flags) != nullptr, c.creates) << c.flags;
        EXPECT_EQ(exists(missing), c.creates) << c.flags;
        std::filesystem::remove(missing);

        const std::string there = folder.file("there");
        writeFile(there, "old");
        {
            const auto file = i4_open(there.c_str(), c.flags);
            char byte = 0;
            EXPECT_EQ(file->read(&byte, 1) >= 0, c.reads) << c.flags;
            file->seek(0);
            file->write("N", 1);
        }
        EXPECT_EQ(contentOf(there), c.afterWriting) << c.flags;
    }
    EXPECT_EQ(i4_open(folder.path().c_str(), 10), nullptr);

    const std::string odd = folder.file("Max: a\\b");
    {
        const auto file = i4_open_exact(odd.c_str(), I4_FILE_WRITE | I4_FILE_READ);
        file->write("abcdef", 6);
        EXPECT_EQ(file->seek(2), 2U);
        EXPECT_EQ(file->size(), 6U);
        EXPECT_EQ(file->tell(), 2U);
        EXPECT_EQ(file->read_16(), 'c' + 'd' * 256);
        EXPECT_EQ(file->bytesLeft(), 2U);
        EXPECT_EQ(file->printf("%d%s", 12, "xyz"), 5U);
    }
    EXPECT_EQ(contentOf(odd), "abcd12xyz");
    EXPECT_EQ(i4_open(odd.c_str(), I4_FILE_READ), nullptr) << "this name is rewritten";
}

class Wagon final : public i4_printable {
  public:
    void print(i4_file* stream) override { stream->printf("<%d>", 7); }
};

TEST(Formatter, WritesWhatEachLetterSays) {
    Wagon wagon;
    const i4_string text("text");
    const i4_string null(nullptr);
    char out[64];
    const auto expect = [&](const char* expected, auto... arguments) {
        EXPECT_EQ(i4_sprintf(out, arguments...), std::strlen(expected));
        EXPECT_STREQ(out, expected);
    };
    expect("ff", "%x", 255);
    expect("-5", "%d", -5);
    expect("A", "%c", 65);
    expect("-2147483648 4294967295 0", "%i %u %d", -2147483647 - 1, 0xffffffffU, 0);
    expect("17777777777 deadbeef 0", "%o %p %x", 0x7fffffffU, 0xdeadbeefU, 0);
    expect("[][7]", "[%f][%d]", 7);
    expect("d7", "%ld%d", 7);
    expect("f 5 abc", "%02x %8d %-10.3s", 15, 5, "abc");
    expect("%|100%", "%%|%d%5%", 100);
    expect("a  b", "a %s b", static_cast<const char*>(nullptr));
    expect("text..", "%S.%S.%S", &text, &null, static_cast<const i4_string*>(nullptr));
    expect("<7> NULL", "%I %I", static_cast<i4_printable*>(&wagon), static_cast<i4_printable*>(nullptr));
    expect("end", "end%");
    expect("end", "end%-12.");

    EXPECT_EQ(i4_snprintf(out, 5, "%s", "abcdefgh"), 8U);
    EXPECT_STREQ(out, "abcd");
    EXPECT_EQ(i4_snprintf(nullptr, 0, "%d", 123), 3U);
    i4_string big;
    big.format("%s%s", std::string(600, 'a').c_str(), std::string(600, 'b').c_str());
    EXPECT_EQ(big, (std::string(600, 'a') + std::string(600, 'b')).c_str());
    i4_debug_file_class terminal;
    EXPECT_EQ(terminal.printf(""), 0U);
}

std::string heard;

TEST(Errors, CarryTextAndPlaceAndGoWhereTheHandlersSend) {
    const auto place = [] {
        const char* file = nullptr;
        int line = 0;
        i4_get_file_line(file, line);
        return std::string(file ? file : "nowhere") + ":" + std::to_string(line);
    };
    i4_ram_file_class nothing(nullptr, 0, 0);
    EXPECT_EQ(errorOf([&] { nothing.read_16(); }), "read_16 error");
    EXPECT_EQ(place().substr(0, 22), "../../i4min/file/file:");
    i4_set_file_line(nullptr, 12345);
    EXPECT_EQ(place().substr(0, 22), "../../i4min/file/file:");
    std::thread([&] { EXPECT_EQ(place(), "nowhere:0"); }).join();
    const int here = __LINE__ + 1;
    EXPECT_EQ(errorOf([] { i4_error()("%s %d", std::string(600, 'x').c_str(), 5); }), std::string(499, 'x'));
    EXPECT_EQ(place(), "../../tests/streams_test:" + std::to_string(here));
    EXPECT_EQ(errorOf([] { i4_realloc(nullptr, std::size_t{1} << 62); }), "out of memory");

    i4_owned_ram_file terminal;
    i4_file* const old = std::exchange(i4_debug_stream, &terminal);
    EXPECT_EQ(i4_warning("there/mod.cpp", 3)("%d left", 2), 0);
    i4_debug("debug %s, ", "text");
    EXPECT_EQ(i4_debug_printf("%s", "four"), 4U);
    EXPECT_EQ(bytesOf(terminal), "Warning (there/mod:3) : 2 left\ndebug text, four");
    i4_debug_stream = nullptr;
    EXPECT_EQ(i4_debug_printf("lost"), 0U);
    i4_debug_stream = old;

    const auto hear = [](const char* text) { return heard = text, 9; };
    i4_set_debug_hook([](const i4_string& text) { heard = text.c_str(); });
    i4_debug("%s", std::string(2000, 'y').c_str());
    EXPECT_EQ(heard, std::string(2000, 'y'));
    i4_set_warning_handler(hear);
    i4_set_error_handler(hear);
    EXPECT_EQ(i4_warning()("warned"), 9);
    EXPECT_EQ(heard, "warned");
    EXPECT_EQ(i4_error()("answered"), 9);
    EXPECT_EQ(heard, "answered");
    i4_set_debug_hook(nullptr);
    i4_set_warning_handler(nullptr);
    i4_set_error_handler(nullptr);
    EXPECT_EQ(errorOf([] { i4_error()("thrown"); }), "thrown");
}

}  // namespace
