#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// Runs a decoder with every prefix of a good input, and with every single byte changed: all bits inverted,
// the lowest bit inverted, the highest bit inverted, set to 0, and set to 255. So counts and lengths become
// zero, huge, and off by one.
//
// The decoder takes a std::span<const std::uint8_t> and may refuse or accept it. It must not crash, hang, or
// read or allocate beyond reason: run it with sanitizers. Each input is a copy of exactly its size, so that a
// read past its end is detected. What the decoder throws is passed on to the test.
template <class Decode>
void sweepDamage(std::span<const std::uint8_t> good, Decode decode) {
    for (std::size_t length = 0; length < good.size(); ++length) {
        const std::vector<std::uint8_t> prefix(good.begin(),
                                               good.begin() + static_cast<std::ptrdiff_t>(length));
        decode(std::span<const std::uint8_t>(prefix));
    }
    for (std::size_t at = 0; at < good.size(); ++at) {
        const std::uint8_t old = good[at];
        for (const int value : {old ^ 0xff, old ^ 0x01, old ^ 0x80, 0x00, 0xff}) {
            if (value == old) continue;
            std::vector<std::uint8_t> flipped(good.begin(), good.end());
            flipped[at] = static_cast<std::uint8_t>(value);
            decode(std::span<const std::uint8_t>(flipped));
        }
    }
}
