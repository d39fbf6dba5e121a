// Clock, the engine's source of time: the system's, or that of a simulation.
#pragma once

#include <algorithm>
#include <compare>
#include <limits>

#include "i4min/memory/types.h"

// A point in time on a Clock, in microseconds since its zero. A plain value.
struct Moment {
    i64 us = 0;

    auto operator<=>(const Moment&) const = default;
};

// Milliseconds from one moment to another, cut; at most what an i32 holds.
inline i32 msBetween(Moment from, Moment to) {
    constexpr i64 most = std::numeric_limits<i32>::max();
    return static_cast<i32>(std::clamp<i64>((to.us - from.us) / 1000, -most, most));
}
inline Moment later(Moment moment, i64 ms) { return {moment.us + ms * 1000}; }

// A monotonic clock and a wall clock. Thread: any.
class Clock {
  public:
    virtual Moment now() const = 0;    // never goes back; its zero is near the start of the process
    virtual u32 fileTime() const = 0;  // the wall clock, in seconds since 1970
    // Milliseconds since the zero, at least 1; wraps after 49 days.
    u32 ticks() const { return static_cast<u32>(now().us / 1000 + 1); }

  protected:
    ~Clock() = default;
};
