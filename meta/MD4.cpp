#include "meta/MD4.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace {

u32 littleEndian(const u8* bytes) {
    return static_cast<u32>(bytes[0]) | static_cast<u32>(bytes[1]) << 8 | static_cast<u32>(bytes[2]) << 16 |
           static_cast<u32>(bytes[3]) << 24;
}

// The three kinds of step. `b` is what the step before has just made, so each is written to leave as little
// as possible to do once it is there: the digest is as fast as this chain.

// b selects between c and d.
[[gnu::always_inline]] inline void stepF(u32& a, u32 b, u32 c, u32 d, u32 word, int turn) {
    a = std::rotl(a + word + (((c ^ d) & b) ^ d), turn);
}
// The majority of the three. The bits of the two terms are disjoint, so that adding them is joining them.
[[gnu::always_inline]] inline void stepG(u32& a, u32 b, u32 c, u32 d, u32 word, int turn) {
    a = std::rotl(a + word + 0x5a827999 + (c & d) + ((c ^ d) & b), turn);
}
// The parity of the three.
[[gnu::always_inline]] inline void stepH(u32& a, u32 b, u32 c, u32 d, u32 word, int turn) {
    a = std::rotl(a + word + 0x6ed9eba1 + ((c ^ d) ^ b), turn);
}

using Step = void (*)(u32&, u32, u32, u32, u32, int);

// Four steps, after which each of the four words has been renewed once.
template <Step step>
[[gnu::always_inline]] inline void four(std::array<u32, 4>& s, const u32* x, const std::array<u32, 4>& words,
                                        const std::array<int, 4>& turns) {
    step(s[0], s[1], s[2], s[3], x[words[0]], turns[0]);
    step(s[3], s[0], s[1], s[2], x[words[1]], turns[1]);
    step(s[2], s[3], s[0], s[1], x[words[2]], turns[2]);
    step(s[1], s[2], s[3], s[0], x[words[3]], turns[3]);
}

constexpr std::array<int, 4> turnsF{3, 7, 11, 19};
constexpr std::array<int, 4> turnsG{3, 5, 9, 13};
constexpr std::array<int, 4> turnsH{3, 9, 11, 15};

}  // namespace

void MD4::transform(const u8* blocks, std::size_t count) {
    std::array<u32, 4> s = state_;
    for (; count > 0; --count, blocks += blockSize) {
        u32 x[blockSize / 4];
        for (std::size_t i = 0; i < std::size(x); ++i) x[i] = littleEndian(blocks + 4 * i);
        const std::array<u32, 4> before = s;
        four<stepF>(s, x, {0, 1, 2, 3}, turnsF);
        four<stepF>(s, x, {4, 5, 6, 7}, turnsF);
        four<stepF>(s, x, {8, 9, 10, 11}, turnsF);
        four<stepF>(s, x, {12, 13, 14, 15}, turnsF);
        four<stepG>(s, x, {0, 4, 8, 12}, turnsG);
        four<stepG>(s, x, {1, 5, 9, 13}, turnsG);
        four<stepG>(s, x, {2, 6, 10, 14}, turnsG);
        four<stepG>(s, x, {3, 7, 11, 15}, turnsG);
        four<stepH>(s, x, {0, 8, 4, 12}, turnsH);
        four<stepH>(s, x, {2, 10, 6, 14}, turnsH);
        four<stepH>(s, x, {1, 9, 5, 13}, turnsH);
        four<stepH>(s, x, {3, 11, 7, 15}, turnsH);
        for (std::size_t i = 0; i < s.size(); ++i) s[i] += before[i];
    }
    state_ = s;
}

void MD4::update(const void* bytes, std::size_t count) {
    const auto* from = static_cast<const u8*>(bytes);
    const std::size_t waiting = taken_ % blockSize;
    taken_ += count;
    if (waiting > 0) {
        const std::size_t added = std::min(count, blockSize - waiting);
        if (added > 0) std::memcpy(block_.data() + waiting, from, added);
        if (waiting + added < blockSize) return;
        transform(block_.data(), 1);
        from += added;
        count -= added;
    }
    transform(from, count / blockSize);
    if (const std::size_t rest = count % blockSize; rest > 0) {
        std::memcpy(block_.data(), from + (count - rest), rest);
    }
}

MD4Hash MD4::finish() {
    const u64 bits = taken_ * 8;
    static constexpr std::array<u8, blockSize> padding{0x80};
    const std::size_t waiting = taken_ % blockSize;
    const std::size_t lengthAt = blockSize - sizeof bits;
    update(padding.data(), waiting < lengthAt ? lengthAt - waiting : blockSize + lengthAt - waiting);
    u8 length[sizeof bits];
    for (std::size_t i = 0; i < sizeof bits; ++i) length[i] = static_cast<u8>(bits >> 8 * i);
    update(length, sizeof length);

    MD4Hash hash;
    for (std::size_t i = 0; i < hash.bytes.size(); ++i) {
        hash.bytes[i] = static_cast<u8>(state_[i / 4] >> 8 * (i % 4));
    }
    *this = MD4();
    return hash;
}

MD4Hash MD4::of(std::string_view bytes) {
    MD4 digest;
    digest.update(bytes.data(), bytes.size());
    return digest.finish();
}
