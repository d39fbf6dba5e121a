// The stream form of a string, on disk and on the wire alike:
//
//   bytes  field
//   2      length n, u16 little-endian, no terminator counted; 0xFFFF is no string
//   n      the bytes, no terminator
#include <utility>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "i4min/memory/malloc4.h"

i4_string::i4_string(i4_file& stream) : text_(nullptr) {
    const u16 length = stream.read_16();
    if (length == 0xFFFF) i4_error()("read string error");
    stream.expect(length);
    i4_string bytes;
    bytes.text_ = static_cast<char*>(i4_realloc(bytes.text_, length + std::size_t{1}));
    bytes.text_[0] = 0;
    if (length > 0) stream.readAll(bytes.text_, length);
    bytes.text_[length] = 0;
    std::swap(text_, bytes.text_);
}

i4_string::i4_string(i4_file& stream, u32 length) : text_(nullptr) {
    const std::optional<u32> left = stream.bytesLeft();
    if (left && length > *left) i4_error()("read string error");
    i4_string bytes;
    bytes.text_ = static_cast<char*>(i4_realloc(bytes.text_, length + std::size_t{1}));
    bytes.text_[0] = 0;
    if (length > 0 && stream.read(bytes.text_, length) != static_cast<i32>(length)) {
        i4_error()("read string error");
    }
    bytes.text_[length] = 0;
    std::swap(text_, bytes.text_);
}

void i4_write_string(i4_file& stream, const char* text) {
    const std::size_t length = i4_strlen(text);
    if (length >= 0xFFFF || stream.write_16(static_cast<u16>(length)) != 2) {
        i4_error()("write string error");
        return;
    }
    if (length > 0 && stream.write(text, static_cast<u32>(length)) != static_cast<i32>(length)) {
        i4_error()("write string error");
    }
}

void i4_string::write(i4_file& stream) const { i4_write_string(stream, text_); }
