#include "sim/Synthetic.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr u64 wordSize = sizeof(u64);
constexpr u64 step = 0xD1342543DE82EF95;

u64 mixed(u64 value) {
    value += 0x9E3779B97F4A7C15;
    value = (value ^ value >> 30) * 0xBF58476D1CE4E5B9;
    value = (value ^ value >> 27) * 0x94D049BB133111EB;
    return value ^ value >> 31;
}

}  // namespace

std::size_t Synthetic::read(u64 at, u8* to, std::size_t count) const {
    count = at < size ? std::min<u64>(count, size - at) : 0;
    const u64 whose = mixed(seed);
    for (std::size_t done = 0; done < count;) {
        const u64 index = (at + done) / block;
        const u64 first = mixed(whose + index);
        const std::size_t end = std::min<u64>(count, (index + 1) * block - at);
        for (u64 number = (at + done) % block / wordSize; done < end; ++number) {
            const u64 word = number == 0 ? whose : number == 1 ? index : first + number * step;
            const std::size_t from = (at + done) % wordSize;
            const std::size_t bytes = std::min(wordSize - from, end - done);
            if (bytes == wordSize) {
                std::memcpy(to + done, &word, wordSize);
            } else {
                std::memcpy(to + done, reinterpret_cast<const u8*>(&word) + from, bytes);
            }
            done += bytes;
        }
    }
    return count;
}

void SyntheticFiles::add(const Synthetic& file) { bySeed_.insert_or_assign(mixed(file.seed), file); }

const Synthetic* SyntheticFiles::find(const u8* bytes, u64& index) const {
    u64 whose = 0;
    std::memcpy(&whose, bytes, wordSize);
    std::memcpy(&index, bytes + wordSize, wordSize);
    const auto found = bySeed_.find(whose);
    if (found == bySeed_.end() || index >= found->second.size / Synthetic::block + 1) return nullptr;
    return &found->second;
}
