// A clock that the test sets.
#pragma once

#include "i4min/threads/Clock.h"

struct ManualClock final : Clock {
    Moment now() const override { return {i64{ms} * 1000}; }
    u32 fileTime() const override { return 1'000'000'000 + ms / 1000; }

    u32 ms = 0;
};
