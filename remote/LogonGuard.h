// LogonGuard slows down whoever guesses a controller's name and password.
#pragma once

#include <array>
#include <unordered_map>

#include "i4min/memory/types.h"

// After five refused log-ons from one address within a minute, further ones from it are dropped unread until
// the first of the five is a minute old. Thread: the socket pool's. Time comes in as milliseconds of a clock
// that only goes on.
class LogonGuard {
  public:
    bool isBlocked(u32 ip, u32 now) const;
    void refused(u32 ip, u32 now);

  private:
    static constexpr u32 mostRefusals = 5;
    struct Refusals {
        std::array<u32, mostRefusals> times{};  // of the last ones, a ring
        u32 count = 0;                          // of them all

        u32 last() const { return times[(count - 1) % mostRefusals]; }
    };
    void makeRoom(u32 now);

    std::unordered_map<u32, Refusals> refusals_;
};
