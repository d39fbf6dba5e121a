// Reading and writing the little-endian bytes of packets and records.
#pragma once

#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "i4min/memory/types.h"
#include "meta/MD4Hash.h"

using Bytes = std::vector<u8>;
using ByteSpan = std::span<const u8>;

// Reads a block that it borrows. What isn't there reads as 0 or nothing and makes failed() true; nothing is
// read from then on.
class ByteReader {
  public:
    explicit ByteReader(ByteSpan bytes) : bytes_(bytes) {}

    bool failed() const { return failed_; }
    std::size_t left() const { return bytes_.size() - at_; }
    std::size_t position() const { return at_; }
    const u8* here() const { return bytes_.data() + at_; }

    u8 read8() { return static_cast<u8>(number(1)); }
    u16 read16() { return static_cast<u16>(number(2)); }
    u32 read32() { return number(4); }
    ByteSpan take(std::size_t count) {
        if (count > left()) failed_ = true;
        if (failed_) return {};
        const ByteSpan taken = bytes_.subspan(at_, count);
        at_ += count;
        return taken;
    }
    std::string_view text() {  // u16 length, bytes
        const ByteSpan bytes = take(read16());
        return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
    }
    MD4Hash hash() {
        MD4Hash result;
        const ByteSpan bytes = take(result.bytes.size());
        if (!bytes.empty()) std::memcpy(result.bytes.data(), bytes.data(), bytes.size());
        return result;
    }

  private:
    u32 number(std::size_t width) {
        u32 value = 0;
        const ByteSpan bytes = take(width);
        for (std::size_t i = bytes.size(); i > 0; --i) value = value << 8 | bytes[i - 1];
        return value;
    }

    ByteSpan bytes_;
    std::size_t at_ = 0;
    bool failed_ = false;
};

// Appends to a block that it borrows.
class ByteWriter {
  public:
    explicit ByteWriter(Bytes& out) : out_(out) {}

    ByteWriter& put8(u32 value) { return number(value, 1); }
    ByteWriter& put16(u32 value) { return number(value, 2); }
    ByteWriter& put32(u32 value) { return number(value, 4); }
    ByteWriter& put(ByteSpan bytes) {
        out_.insert(out_.end(), bytes.begin(), bytes.end());
        return *this;
    }
    ByteWriter& text(std::string_view value) {  // at most 65,534 bytes
        value = value.substr(0, 0xFFFE);
        put16(static_cast<u32>(value.size()));
        return put({reinterpret_cast<const u8*>(value.data()), value.size()});
    }
    ByteWriter& hash(const MD4Hash& value) { return put(value.bytes); }

  private:
    ByteWriter& number(u32 value, std::size_t width) {
        for (std::size_t i = 0; i < width; ++i, value >>= 8) out_.push_back(static_cast<u8>(value));
        return *this;
    }

    Bytes& out_;
};

// Overwrites four bytes that were written before.
inline void patch32(Bytes& bytes, std::size_t at, u32 value) {
    for (std::size_t i = 0; i < 4; ++i, value >>= 8) bytes[at + i] = static_cast<u8>(value);
}
