// MD4Hash, the 16 bytes by which files, parts and users are known, and the ways to compute it.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <vector>

#include "i4min/memory/types.h"

class i4_file;

// A file is hashed in parts of 9500 blocks of 1024 bytes.
inline constexpr u32 hashBlock = 1024;
inline constexpr u32 blocksPerPart = 9500;
inline constexpr u32 PARTSIZE = blocksPerPart * hashBlock;  // 9,728,000 bytes

// A digest. All zero means that it isn't known. Copied bytewise; a plain value.
struct MD4Hash {
    std::array<u8, 16> bytes{};

    bool operator==(const MD4Hash&) const = default;
    bool isZero() const { return *this == MD4Hash(); }
    void clear() { bytes.fill(0); }
};

template <>
struct std::hash<MD4Hash> {
    std::size_t operator()(const MD4Hash& key) const noexcept {
        std::size_t value = 0;
        for (std::size_t i = 0; i < sizeof value; ++i) value = value << 8 | key.bytes[i];
        return value;
    }
};
