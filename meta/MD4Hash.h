// MD4Hash, the 16 bytes by which files, parts and users are known, and the ways to compute it.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "i4min/memory/types.h"

class Disk;
class i4_file;

// A file is hashed in parts of 9500 blocks of 1024 bytes.
inline constexpr u32 hashBlock = 1024;
inline constexpr u32 blocksPerPart = 9500;
inline constexpr u32 PARTSIZE = blocksPerPart * hashBlock;  // 9,728,000 bytes

// How hashing a file ended. Only `whole` gives a hash; after all else the results are as they were.
enum class HashOutcome {
    whole,
    notOpened,   // no such file, not allowed, or not a regular file
    unreadable,  // a read failed
    changed,     // the file grew, shrank or was written to meanwhile: what was read is no version of it
    abandoned,   // the caller gave up
};

// Asked between reads, some thousand times for a gigabyte: true ends the hashing. Empty never does.
using GiveUp = std::function<bool()>;

// A digest; all zero means unknown. A plain value. The static functions that compute one share no state.
// Thread: any, at the same time.
struct MD4Hash {
    std::array<u8, 16> bytes{};

    static constexpr u32 streamSize = 16;  // on a stream the bytes as they are
    static MD4Hash read(i4_file& stream);  // raises on a short stream
    bool write(i4_file& stream) const;     // whether all of it was taken

    bool operator==(const MD4Hash&) const = default;
    bool isZero() const { return *this == MD4Hash(); }
    void clear() { bytes.fill(0); }

    // 32 lower-case hexadecimal digits, two for each byte, in byte order.
    std::string toText() const;
    // False, and the hash is as it was, unless the text is exactly 32 hexadecimal digits of either case.
    [[nodiscard]] bool fromText(const char* text);  // null is no hash
    [[nodiscard]] bool fromText(std::string_view text);

    // The MD4 of the bytes from `start` up to but not including `end`. False if the stream can't seek there
    // or ends before, or if `end` is below `start`; `out` is then as it was.
    [[nodiscard]] static bool compute(MD4Hash& out, i4_file& stream, u32 start, u32 end);

    // The MD4 of part hashes in order: the hash of a file of two parts or more.
    static MD4Hash ofParts(const std::vector<MD4Hash>& parts);

    // Hashes the file with exactly this path: `out` is the file's hash, `parts` the hashes of its parts. A
    // file of one part, so one below PARTSIZE, has an empty list, and its part's hash is its own. A file
    // whose size is an exact multiple of PARTSIZE ends with an empty part, which counts. `size`, where given,
    // gets the number of bytes that were hashed. Takes 256 KiB of memory, whatever the file's size.
    [[nodiscard]] static HashOutcome computeFile(MD4Hash& out, Disk& disk, const char* path,
                                                 std::vector<MD4Hash>& parts, const GiveUp& giveUp = {},
                                                 u64* size = nullptr);
};

template <>
struct std::hash<MD4Hash> {
    std::size_t operator()(const MD4Hash& key) const noexcept {
        std::size_t value = 0;
        for (std::size_t i = 0; i < sizeof value; ++i) value = value << 8 | key.bytes[i];
        return value;
    }
};
