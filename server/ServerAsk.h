// ServerAsk, one server on a download's list of servers to ask for sources.
#pragma once

#include "app/MessageQ.h"
#include "i4min/memory/types.h"

struct MD4Hash;

struct ServerAsk {
    ServerAddress address;
    i32 timer = 1'200'000;  // ms since it was last asked; it is due above 1,200,000

    // Asks if it is due. True when the request went out.
    bool ask(const MD4Hash& hash);
};
