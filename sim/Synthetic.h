// Synthetic: the content of a file that is generated from a seed.
#pragma once

#include <cstddef>
#include <unordered_map>

#include "i4min/memory/types.h"

// Any part can be generated without the rest, so a disk can store a block as two numbers. A plain value.
//
//   of each block of 64 KiB:
//     offset  bytes  field
//     0       8      which seed, mixed
//     8       8      which block, from 0
//     16      rest   8-byte words: the first made of seed and block, each next one greater by the same number
struct Synthetic {
    static constexpr std::size_t block = 64 * 1024;
    u64 seed;
    u64 size;
    // Copies up to `count` bytes from offset `at` and returns how many.
    std::size_t read(u64 at, u8* to, std::size_t count) const;
};

// The synthetic files of a simulation, with which a disk recognises their blocks.
// Thread: one. Owns: copies of the files' seeds and sizes.
class SyntheticFiles {
  public:
    void add(const Synthetic& file);
    // Returns the file and block that these 64 KiB may be, or null. The caller has to compare them.
    const Synthetic* find(const u8* bytes, u64& index) const;

  private:
    std::unordered_map<u64, Synthetic> bySeed_;  // by mixed seed; for look-up only
};
