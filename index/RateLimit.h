// RateLimit, a bucket that lets a burst through and then one thing at a time.
#pragma once

#include <algorithm>

#include "i4min/memory/types.h"

// Times are in milliseconds of any clock that doesn't go back. Kept as the moment up to which the past
// is used up, so that a bucket is one word.
class RateLimit {
  public:
    // Counts one more thing. Returns the moment at which it may happen: `now` or before, where the burst
    // isn't used up.
    u64 take(u64 now, u32 burst, u32 pause) {
        const u64 start = now > u64{burst} * pause ? now - u64{burst} * pause : 0;
        usedUpTo_ = std::max(usedUpTo_, start) + pause;
        return usedUpTo_;
    }
    // False, and nothing is counted, if it may not happen now.
    bool tryTake(u64 now, u32 burst, u32 pause) {
        const u64 before = usedUpTo_;
        if (take(now, burst, pause) <= now) return true;
        usedUpTo_ = before;
        return false;
    }
    bool isFull(u64 now, u32 burst, u32 pause) const { return usedUpTo_ + u64{burst} * pause <= now; }

  private:
    u64 usedUpTo_ = 0;
};
