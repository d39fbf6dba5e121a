// What the pools, connections and workers of one client need from outside.
#pragma once

#include "core/UIInterface.h"
#include "host/Host.h"

class ConnectRegistry;
struct LineSpeeds;

// Outlives whatever got it.
struct Transport {
    Host& host;
    UIInterface& log;
    LineSpeeds& line;
    ConnectRegistry& connects;
};
