// ServerAsk, one server on a download's list of servers to ask for sources.
#pragma once

#include "core/MessageQ.h"
#include "i4min/memory/types.h"

struct ServerAsk {
    static constexpr i32 pause = 1'200'000;  // ms

    ServerAddress address;
    i32 timer = pause;  // ms since it was last asked; above `pause` it is due
};
