// MD4, the one digest of the system, as RFC 1320 defines it.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

#include "i4min/memory/types.h"
#include "meta/MD4Hash.h"

// One digest in the making. Thread: one at a time. A fresh object has taken no bytes.
class MD4 {
  public:
    static constexpr std::size_t blockSize = 64;  // bytes are taken in blocks

    void update(std::span<const u8> bytes);
    // The digest of all that was given. The object is then fresh again.
    MD4Hash finish();

    // As many digests as are taken side by side.
    static constexpr std::size_t lanes = 8;
    static bool hasWideVectors();  // the processor has vectors of that many words
    // update() of up to that many digests, in a fraction of the time: the i-th takes the `count` bytes from
    // bytes + i * count on. That is a multiple of blockSize, as is what each digest has taken before. The
    // wide vectors are used only where there are some.
    static void updateEach(std::span<MD4> digests, const u8* bytes, std::size_t count,
                           bool wide = hasWideVectors());

    static MD4Hash of(std::string_view bytes);

  private:
    void takeBlocks(const u8* blocks, std::size_t count);

    std::array<u32, 4> state_{0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    u64 taken_ = 0;                      // bytes so far; the last taken_ % blockSize of them wait in block_
    std::array<u8, blockSize> block_{};  // never full
};
