#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

// Damage on purpose. Feeds a decoder every prefix of a good input, and the input with every single byte
// flipped: each byte in turn with all its bits inverted, with its lowest and its highest bit inverted, and
// set to 0 and to 255 (so that counts and lengths become nothing, huge, and off by one).
//
// The decoder takes a std::span<const std::uint8_t> and shall refuse or accept as it sees fit: what it must
// not do is crash, hang, or read or allocate beyond reason. Run it under the sanitizers. Each input is a copy
// of exactly its own size, so that reading one byte past its end is seen. What the decoder throws goes on to
// the test.
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
