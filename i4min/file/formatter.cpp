// The foundation's formatter: i4_file::printf and the text forms on top of it.
//
//   %%      one %                      %c      one byte
//   %s      const char*, null nothing  %d %i   signed decimal
//   %S      i4_string*, its text       %u %o   unsigned decimal, octal
//   %I      i4_printable*, its print   %x %p   unsigned lower-case hexadecimal, no prefix
//
// Flags, width and precision are read over, any other letter writes nothing and takes no argument: there are
// no floats, no widths and no long forms.
#include <algorithm>
#include <limits>

#include "i4min/file/file.h"
#include "i4min/memory/malloc4.h"

namespace {

bool isConversion(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '%'; }

void putText(i4_file& out, const char* text) {
    if (text) out.write(i4_bytes(text));
}

void putNumber(i4_file& out, u32 value, u32 base) {
    char digits[32];
    char* at = digits + sizeof digits;
    do {
        *--at = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    out.write(i4_bytes({at, digits + sizeof digits}));
}

void putSigned(i4_file& out, i32 value) {
    if (value < 0) out.write_8('-');
    putNumber(out, value < 0 ? 0 - static_cast<u32>(value) : static_cast<u32>(value), 10);
}

void putPrintable(i4_file& out, i4_printable* value) {
    if (value) {
        value->print(&out);
    } else {
        putText(out, "NULL");
    }
}

// A stream into a fixed buffer of n bytes: what doesn't fit is counted and dropped.
class BoundedText : public i4_file {
  public:
    BoundedText(char* buffer, std::size_t n) : buffer_(buffer), room_(n > 0 ? n - 1 : 0) {}
    i32 read(std::span<u8>) override { return 0; }
    i32 write(std::span<const u8> bytes) override {
        const std::size_t fits = written_ < room_ ? std::min(bytes.size(), room_ - written_) : 0;
        if (fits > 0) std::copy_n(bytes.data(), fits, buffer_ + written_);
        written_ += bytes.size();
        return static_cast<i32>(bytes.size());
    }
    u32 seek(u32) override { return tell(); }
    u32 size() override { return tell(); }
    u32 tell() override { return static_cast<u32>(written_); }
    void terminate() { buffer_[std::min(written_, room_)] = 0; }

  private:
    char* const buffer_;
    const std::size_t room_;
    std::size_t written_ = 0;
};

}  // namespace

u32 i4_file::vprintf(const char* format, va_list list) {
    const u32 before = tell();
    for (const char* c = format; *c; ++c) {
        if (*c != '%') {
            write_8(static_cast<u8>(*c));
            continue;
        }
        do ++c;
        while (*c && !isConversion(*c));
        if (!*c) break;
        switch (*c) {
            case '%':
                write_8('%');
                break;
            case 's':
                putText(*this, va_arg(list, const char*));
                break;
            case 'S': {
                const i4_string* text = va_arg(list, const i4_string*);
                putText(*this, text ? text->c_str() : nullptr);
                break;
            }
            case 'I':
                putPrintable(*this, va_arg(list, i4_printable*));
                break;
            case 'c':
                write_8(static_cast<u8>(va_arg(list, int)));
                break;
            case 'd':
            case 'i':
                putSigned(*this, va_arg(list, int));
                break;
            case 'u':
                putNumber(*this, va_arg(list, u32), 10);
                break;
            case 'o':
                putNumber(*this, va_arg(list, u32), 8);
                break;
            case 'x':
            case 'p':
                putNumber(*this, va_arg(list, u32), 16);
                break;
            default:
                break;
        }
    }
    return tell() - before;
}

u32 i4_file::printf(const char* format, ...) {
    va_list list;
    va_start(list, format);
    const u32 written = vprintf(format, list);
    va_end(list);
    return written;
}

u32 i4_vsnprintf(char* d, std::size_t n, const char* format, va_list list) {
    BoundedText out(d, n);
    const u32 length = out.vprintf(format, list);
    if (n > 0) out.terminate();
    return length;
}

u32 i4_snprintf(char* d, std::size_t n, const char* format, ...) {
    va_list list;
    va_start(list, format);
    const u32 length = i4_vsnprintf(d, n, format, list);
    va_end(list);
    return length;
}

u32 i4_sprintf(char* d, const char* format, ...) {
    va_list list;
    va_start(list, format);
    const u32 length = i4_vsnprintf(d, std::numeric_limits<std::size_t>::max(), format, list);
    va_end(list);
    return length;
}

void i4_string::format(const char* text, ...) {
    i4_owned_ram_file out;
    va_list list;
    va_start(list, text);
    out.vprintf(text, list);
    va_end(list);
    out.write_8(0);
    *this = reinterpret_cast<const char*>(out.buffer());
}
