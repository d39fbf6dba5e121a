// Transport: what pools, connections and workers of a client use.
#pragma once

#include "core/UIInterface.h"
#include "host/Host.h"

class ConnectRegistry;
struct LineSpeeds;

// References only.
// Thread: as each member says. The referenced objects must outlive everything that holds a Transport.
struct Transport {
    Host& host;
    UIInterface& log;
    LineSpeeds& line;
    ConnectRegistry& connects;
};
