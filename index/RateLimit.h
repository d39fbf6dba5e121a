// RateLimit, a bucket that lets a burst through and then one thing at a time.
#pragma once

#include <algorithm>
#include <limits>

#include "i4min/memory/types.h"

// Times are in milliseconds of any clock that doesn't go back. Kept as the moment up to which the past
// is used up, so that a bucket is one word.
class RateLimit {
  public:
    // Counts one more thing. Returns the moment at which it may happen: `now` or before, where the burst
    // isn't used up.
    u64 take(u64 now, u32 burst, u32 pause) {
        usedUpTo_ = std::max(usedUpTo_, static_cast<i64>(now) - i64{burst} * pause) + pause;
        return static_cast<u64>(std::max<i64>(usedUpTo_, 0));
    }
    // False, and nothing is counted, if it may not happen now.
    bool tryTake(u64 now, u32 burst, u32 pause) {
        const i64 before = usedUpTo_;
        if (take(now, burst, pause) <= now) return true;
        usedUpTo_ = before;
        return false;
    }
    bool isFull(u64 now, u32 burst, u32 pause) const {
        return usedUpTo_ + i64{burst} * pause <= static_cast<i64>(now);
    }

  private:
    i64 usedUpTo_ = std::numeric_limits<i64>::min() / 2;  // long ago, also for a clock near its zero
};
