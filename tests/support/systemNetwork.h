// The system's network, for tests without an engine.
#pragma once

#include "i4min/network/protocol.h"
#include "i4min/network/proxy.h"

inline i4_protocol& systemNetwork() {
    static i4_tcpip_protocol network(nullptr);
    return network;
}
