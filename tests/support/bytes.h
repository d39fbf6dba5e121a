// Streams and bytes for tests of formats.
#pragma once

#include <cstdint>
#include <cstring>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "i4min/file/file.h"
#include "meta/MD4Hash.h"

using Bytes = std::vector<std::uint8_t>;

// A memory stream for reading a copy of exactly these bytes.
class BytesFile : public i4_ram_file_class {
  public:
    explicit BytesFile(std::span<const std::uint8_t> bytes)
        : i4_ram_file_class(nullptr, 0, 0), bytes_(bytes.begin(), bytes.end()) {
        reset(bytes_.data(), static_cast<u32>(bytes_.size()), 0);
    }

  private:
    Bytes bytes_;
};

// The bytes that `write` puts on a stream.
template <class Write>
Bytes written(Write write) {
    i4_owned_ram_file file;
    write(file);
    return Bytes(file.buffer(), file.buffer() + file.size());
}

inline std::string_view viewOf(std::span<const std::uint8_t> bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Little-endian numbers and texts with a length, as all formats have them.
inline std::string le8(std::size_t value) { return std::string(1, static_cast<char>(value)); }
inline std::string le16(std::size_t value) {
    return {static_cast<char>(value), static_cast<char>(value >> 8)};
}
inline std::string le32(std::size_t value) { return le16(value) + le16(value >> 16); }
inline std::string text16(const std::string& text) { return le16(text.size()) + text; }
inline u32 u16At(const std::string& bytes, std::size_t at) {
    return static_cast<u8>(bytes.at(at)) | static_cast<u32>(static_cast<u8>(bytes.at(at + 1))) << 8;
}
inline u32 u32At(const std::string& bytes, std::size_t at) {
    return u16At(bytes, at) | u16At(bytes, at + 2) << 16;
}

// The body of a packet, and its wire form.
inline std::string opcode(u32 number, const std::string& payload = {}) { return le8(number) + payload; }
inline std::string framed(const std::string& body) { return "\xE3" + le32(body.size()) + body; }

inline std::string bytesOf(const MD4Hash& hash) {
    return {reinterpret_cast<const char*>(hash.bytes.data()), hash.bytes.size()};
}
inline MD4Hash hashOf(u8 fill) {
    MD4Hash hash;
    hash.bytes.fill(fill);
    return hash;
}

// A record in wire format with one tag, its name.
inline std::string namedRecord(const MD4Hash& hash, u32 ip, u16 port, const std::string& name) {
    return bytesOf(hash) + le32(ip) + le16(port) + le32(1) + "\2" + text16("\1") + text16(name);
}

// The same bytes for the same seed.
inline std::string someBytes(std::size_t count, unsigned seed = 1320) {
    std::mt19937_64 random(seed);
    std::string bytes(count + 8, '\0');
    for (std::size_t at = 0; at < count; at += 8) {
        const std::uint64_t word = random();
        std::memcpy(bytes.data() + at, &word, sizeof word);
    }
    bytes.resize(count);
    return bytes;
}
