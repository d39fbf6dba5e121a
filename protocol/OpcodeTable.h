// OpcodeTable, a protocol's messages in one table.
#pragma once

#include <cstddef>

#include "i4min/memory/types.h"

inline constexpr u8 packetMarker = 0xE3;  // the first byte of each packet and datagram

// As seen from the client; of a controller's messages, from the client that it steers.
enum class Direction : u8 { in = 1, out = 2, both = 3 };

// One message of a protocol: what follows its opcode byte takes at least `least` and at most `most`
// bytes. The bounds are those of the format with everything that its readers put up with; a reader that
// leaves a tail unread has most = unbounded.
struct Opcode {
    static constexpr u32 unbounded = 0xFFFFFFFF;

    u8 number;
    const char* name;
    Direction direction;
    u32 least;
    u32 most;
    const char* body = "";  // in words, as docs/protocol.md has them
};

// Constant; made from a static array of rows. A number may have one row for each direction.
class OpcodeTable {
  public:
    template <std::size_t N>
    constexpr explicit OpcodeTable(const Opcode (&rows)[N]) : rows_(rows), count_(N) {}

    // Null where the protocol has no such message in that direction, which is in or out.
    constexpr const Opcode* find(u8 number, Direction direction) const {
        for (std::size_t i = 0; i < count_; ++i) {
            if (rows_[i].number == number &&
                (static_cast<u8>(rows_[i].direction) & static_cast<u8>(direction)) != 0) {
                return &rows_[i];
            }
        }
        return nullptr;
    }
    // Whether a payload of that length can be this message. An opcode without a row always fits: its
    // handler decides.
    constexpr bool fits(u8 number, Direction direction, u32 payload) const {
        const Opcode* row = find(number, direction);
        return !row || (payload >= row->least && payload <= row->most);
    }

    constexpr const Opcode* begin() const { return rows_; }
    constexpr const Opcode* end() const { return rows_ + count_; }

  private:
    const Opcode* rows_;
    std::size_t count_;
};
