// Files for the importers, made by hand.
#pragma once

#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

inline void writeFile(const std::string& path, std::string_view bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string littleEndian32(std::uint32_t value) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(value >> shift);
    return bytes;
}

inline std::string bigEndian32(std::uint32_t value) {
    const std::string bytes = littleEndian32(value);
    return {bytes.rbegin(), bytes.rend()};
}

// A RIFF chunk, unpadded. Its size is that of the data unless another one is given.
inline std::string chunk(const std::string& id, const std::string& data) {
    return id + littleEndian32(static_cast<std::uint32_t>(data.size())) + data;
}
inline std::string lyingChunk(const std::string& id, std::uint32_t size, const std::string& data) {
    return id + littleEndian32(size) + data;
}

// The 56 bytes of a stream header.
inline std::string streamHeader(const std::string& type, const std::string& codec, std::uint32_t scale,
                                std::uint32_t rate, std::uint32_t length) {
    return chunk("strh", type + codec + std::string(12, 0) + littleEndian32(scale) + littleEndian32(rate) +
                             std::string(4, 0) + littleEndian32(length) + std::string(20, 0));
}

inline std::string streamList(const std::string& chunks) { return chunk("LIST", "strl" + chunks); }

// An AVI file whose header list is a main header and these chunks.
inline std::string aviFile(const std::string& chunks) {
    const std::string headers = chunk("LIST", "hdrl" + chunk("avih", std::string(56, 1)) + chunks);
    return chunk("RIFF", "AVI " + headers + chunk("LIST", "movi"));
}

// An MPEG audio file of `size` bytes that begins with this frame header; a Xing header stands `distance`
// bytes behind it.
inline std::string audioFile(std::uint32_t header, std::size_t size, std::size_t distance = 0,
                             std::uint32_t flags = 1, std::uint32_t frames = 0) {
    std::string file = bigEndian32(header);
    if (distance > 0) {
        file.resize(distance);
        file += "Xing" + bigEndian32(flags) + bigEndian32(frames);
    }
    file.resize(size);
    return file;
}
