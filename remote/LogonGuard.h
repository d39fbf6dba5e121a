// LogonGuard: slows down attempts to guess a controller's name and password.
#pragma once

#include <array>
#include <unordered_map>

#include "i4min/memory/types.h"

// After five refused log-ons from an address within a minute, further ones are ignored until the first of the
// five is a minute old. Times are milliseconds of a monotonic clock.
// Thread: the socket pool's.
class LogonGuard {
  public:
    bool isBlocked(u32 ip, u32 now) const;
    void refused(u32 ip, u32 now);

  private:
    static constexpr u32 mostRefusals = 5;
    struct Refusals {
        std::array<u32, mostRefusals> times{};  // times of the last refusals, a ring
        u32 count = 0;                          // of all refusals

        u32 last() const { return times[(count - 1) % mostRefusals]; }
    };
    void makeRoom(u32 now);

    std::unordered_map<u32, Refusals> refusals_;
};
