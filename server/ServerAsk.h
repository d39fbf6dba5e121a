// ServerAsk: an entry in a download's list of servers to ask for sources.
#pragma once

#include "core/MessageQ.h"
#include "i4min/memory/types.h"

// A server's address and the time since it was last asked for this download. A plain value.
// Thread: that of the list it is in.
struct ServerAsk {
    static constexpr i32 pause = 1'200'000;  // ms between two requests to the same server

    ServerAddress address;
    i32 timer = pause;  // ms since it was last asked; due when above `pause`
};
