// Synthetic, the bytes of a file that a seed makes.
#pragma once

#include <cstddef>
#include <unordered_map>

#include "i4min/memory/types.h"

// Any part of it can be had without the rest, so a copy of a block is kept as two numbers.
//
//   of each block of 64 KiB:
//     offset  bytes  field
//     0       8      which seed, mixed
//     8       8      which block, from 0
//     16      rest   words of 8 bytes: a first one of seed and block, each next one greater by the same
// number
struct Synthetic {
    static constexpr std::size_t block = 64 * 1024;
    u64 seed;
    u64 size;
    // `to` gets the bytes from `at` on, at most so many; how many.
    std::size_t read(u64 at, u8* to, std::size_t count) const;
};

// The synthetic files of a world, by which a disk knows that it was given a block of one. Thread: one.
class SyntheticFiles {
  public:
    void add(const Synthetic& file);
    // Which file and block these 64 KiB may be; null for none. They have to be compared.
    const Synthetic* find(const u8* bytes, u64& index) const;

  private:
    std::unordered_map<u64, Synthetic> bySeed_;  // mixed; only looked up
};
