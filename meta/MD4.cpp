#include "meta/MD4.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "i4min/memory/bytes.h"

namespace {

// A word of one digest is a u32. Several digests go side by side in vectors, with a lane for each of them.
using Words4 [[gnu::vector_size(16)]] = u32;
using Words8 [[gnu::vector_size(32)]] = u32;

template <class Word>
constexpr std::size_t width = sizeof(Word) / sizeof(u32);

u32 littleEndian(const u8* bytes) {
    return static_cast<u32>(bytes[0]) | static_cast<u32>(bytes[1]) << 8 | static_cast<u32>(bytes[2]) << 16 |
           static_cast<u32>(bytes[3]) << 24;
}

// The three kinds of step, less the turn that ends each. `b` is what the step before has just made, so each
// is written to leave as little as possible to do once it is there: the digest is as fast as this chain.

// b selects between c and d.
struct F {
    static constexpr int turns[] = {3, 7, 11, 19};
    template <class Word>
    [[gnu::always_inline]] static void step(Word& a, const Word& b, const Word& c, const Word& d,
                                            const Word& word) {
        a = a + word + (((c ^ d) & b) ^ d);
    }
};
// The majority of the three. The bits of the two terms are disjoint, so that adding them is joining them.
struct G {
    static constexpr int turns[] = {3, 5, 9, 13};
    template <class Word>
    [[gnu::always_inline]] static void step(Word& a, const Word& b, const Word& c, const Word& d,
                                            const Word& word) {
        a = a + word + 0x5a827999 + (c & d) + ((c ^ d) & b);
    }
};
// The parity of the three.
struct H {
    static constexpr int turns[] = {3, 9, 11, 15};
    template <class Word>
    [[gnu::always_inline]] static void step(Word& a, const Word& b, const Word& c, const Word& d,
                                            const Word& word) {
        a = a + word + 0x6ed9eba1 + ((c ^ d) ^ b);
    }
};

template <class Kind, int i, class Word>
[[gnu::always_inline]] inline void turned(Word& a, const Word& b, const Word& c, const Word& d,
                                          const Word& word) {
    Kind::step(a, b, c, d, word);
    a = a << Kind::turns[i] | a >> (32 - Kind::turns[i]);
}

// Four steps, after which each of the four words of the state has been renewed once.
template <class Kind, class Word>
[[gnu::always_inline]] inline void four(Word (&s)[4], const Word (&x)[16], int i, int j, int k, int l) {
    turned<Kind, 0>(s[0], s[1], s[2], s[3], x[i]);
    turned<Kind, 1>(s[3], s[0], s[1], s[2], x[j]);
    turned<Kind, 2>(s[2], s[3], s[0], s[1], x[k]);
    turned<Kind, 3>(s[1], s[2], s[3], s[0], x[l]);
}

// Where a digest stands, and the blocks that it takes next.
struct Lane {
    std::array<u32, 4>* state;
    const u8* blocks;
};

// Each lane takes `count` blocks.
template <class Word>
[[gnu::always_inline]] inline void transform(const Lane* lanes, std::size_t count) {
    u32 states[4][width<Word>];
    u32 words[16][width<Word>];
    Word s[4];
    Word x[16];
    for (std::size_t i = 0; i < 4; ++i) {
        for (std::size_t lane = 0; lane < width<Word>; ++lane) states[i][lane] = (*lanes[lane].state)[i];
    }
    std::memcpy(s, states, sizeof s);
    for (std::size_t at = 0; at < count * MD4::blockSize; at += MD4::blockSize) {
        for (std::size_t i = 0; i < 16; ++i) {
            for (std::size_t lane = 0; lane < width<Word>; ++lane) {
                words[i][lane] = littleEndian(lanes[lane].blocks + at + 4 * i);
            }
        }
        std::memcpy(x, words, sizeof x);
        const Word before[4] = {s[0], s[1], s[2], s[3]};
        four<F>(s, x, 0, 1, 2, 3);
        four<F>(s, x, 4, 5, 6, 7);
        four<F>(s, x, 8, 9, 10, 11);
        four<F>(s, x, 12, 13, 14, 15);
        four<G>(s, x, 0, 4, 8, 12);
        four<G>(s, x, 1, 5, 9, 13);
        four<G>(s, x, 2, 6, 10, 14);
        four<G>(s, x, 3, 7, 11, 15);
        four<H>(s, x, 0, 8, 4, 12);
        four<H>(s, x, 2, 10, 6, 14);
        four<H>(s, x, 1, 9, 5, 13);
        four<H>(s, x, 3, 11, 7, 15);
        for (std::size_t i = 0; i < 4; ++i) s[i] += before[i];
    }
    std::memcpy(states, s, sizeof s);
    for (std::size_t i = 0; i < 4; ++i) {
        for (std::size_t lane = 0; lane < width<Word>; ++lane) (*lanes[lane].state)[i] = states[i][lane];
    }
}

#ifdef __x86_64__
[[gnu::target("avx2")]] void transformWide(const Lane* lanes, std::size_t count) {
    transform<Words8>(lanes, count);
}
#else
void transformWide(const Lane*, std::size_t) {}
#endif

}  // namespace

void MD4::takeBlocks(const u8* blocks, std::size_t count) {
    const Lane lane{&state_, blocks};
    transform<u32>(&lane, count);
}

bool MD4::hasWideVectors() {
#ifdef __x86_64__
    return __builtin_cpu_supports("avx2");
#else
    return false;
#endif
}

void MD4::updateEach(std::span<MD4> digests, const u8* bytes, std::size_t count, bool wide) {
    assert(!digests.empty() && digests.size() <= lanes && count % blockSize == 0);
    // Lanes that are left over do once more what the last digest does.
    std::array<Lane, lanes> all;
    for (std::size_t i = 0; i < lanes; ++i) {
        const std::size_t which = std::min(i, digests.size() - 1);
        all[i] = {&digests[which].state_, bytes + which * count};
    }
    const std::size_t blocks = count / blockSize;
    if (wide && hasWideVectors()) {
        transformWide(all.data(), blocks);
    } else {
        for (std::size_t i = 0; i < digests.size(); i += width<Words4>)
            transform<Words4>(all.data() + i, blocks);
    }
    for (MD4& digest : digests) {
        assert(digest.taken_ % blockSize == 0);
        digest.taken_ += count;
    }
}

void MD4::update(std::span<const u8> bytes) {
    const std::size_t waiting = taken_ % blockSize;
    taken_ += bytes.size();
    if (waiting > 0) {
        const auto added = bytes.first(std::min(bytes.size(), blockSize - waiting));
        std::ranges::copy(added, block_.begin() + waiting);
        if (waiting + added.size() < blockSize) return;
        takeBlocks(block_.data(), 1);
        bytes = bytes.subspan(added.size());
    }
    takeBlocks(bytes.data(), bytes.size() / blockSize);
    std::ranges::copy(bytes.last(bytes.size() % blockSize), block_.begin());
}

MD4Hash MD4::finish() {
    const u64 bits = taken_ * 8;
    static constexpr std::array<u8, blockSize> padding{0x80};
    const std::size_t waiting = taken_ % blockSize;
    const std::size_t lengthAt = blockSize - sizeof bits;
    update(std::span(padding).first((waiting < lengthAt ? 0 : blockSize) + lengthAt - waiting));
    u8 length[sizeof bits];
    for (std::size_t i = 0; i < sizeof bits; ++i) length[i] = static_cast<u8>(bits >> 8 * i);
    update(length);

    MD4Hash hash;
    for (std::size_t i = 0; i < hash.bytes.size(); ++i) {
        hash.bytes[i] = static_cast<u8>(state_[i / 4] >> 8 * (i % 4));
    }
    *this = MD4();
    return hash;
}

MD4Hash MD4::of(std::string_view bytes) {
    MD4 digest;
    digest.update(i4_bytes(bytes));
    return digest.finish();
}
