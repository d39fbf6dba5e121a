// Picture: an SVG chart of who sent how much to whom and when.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "i4min/memory/annotations.h"
#include "i4min/memory/types.h"

// At most 511 bytes, by the system library's formatter.
std::string formatted(const char* format, ...) PRINTF_LIKE(1, 2);

// A lane for each who received: in each span of time a pile of what came from each giver, in the giver's
// colour, and a mark where something was told of the receiver. Thread: one.
class Picture {
  public:
    // Machines without a name are ignored, as senders and as receivers.
    void name(u32 address, const std::string& name);
    void carried(i64 us, u32 from, u32 to, std::size_t bytes);
    void mark(i64 us, u32 address, const std::string& what);
    std::string svg(const std::string& title) const;

    u64 given(u32 address) const;  // bytes
    u64 taken(u32 address) const;

  private:
    struct Cell {
        u32 to;
        i64 span;
        u32 from;
        auto operator<=>(const Cell&) const = default;
    };
    struct Mark {
        i64 us;
        u32 address;
        std::string what;
    };
    void coarsen();
    std::string lane(u32 to, double top, u64 most) const;
    std::string colour(u32 from) const;
    double x(i64 us) const;

    std::vector<std::pair<u32, std::string>> names_;  // in the order of the lanes
    std::map<u32, std::size_t> lanes_;
    std::map<Cell, u64> bytes_;
    std::vector<Mark> marks_;
    i64 spanUs_ = 250'000;  // grows so that there is at most one span per column
    i64 lastSpan_ = 0;
};
