// LogonGuard slows down whoever guesses a controller's name and password.
#pragma once

#include <unordered_map>

#include "i4min/memory/types.h"

// After five refused log-ons from one address within a minute, further ones from it are refused unread for
// that minute. Thread: the socket pool's. Time comes in as milliseconds of a clock that only goes on.
class LogonGuard {
  public:
    bool isBlocked(u32 ip, u32 now);
    void refused(u32 ip, u32 now);

  private:
    struct Attempts {
        u32 count = 0;
        u32 since = 0;
    };
    void forgetOld(u32 now);

    std::unordered_map<u32, Attempts> attempts_;
};
