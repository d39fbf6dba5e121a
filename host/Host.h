// Host, what the engine asks of the machine that it runs on: the real one, or a simulated one.
#pragma once

#include "i4min/file/Disk.h"
#include "i4min/memory/Random.h"
#include "i4min/threads/Clock.h"
#include "i4min/threads/Scheduler.h"

class i4_protocol;

// Outlives whoever got it.
struct Host {
    Clock& clock;
    Scheduler& scheduler;
    Disk& disk;
    Random& random;
    i4_protocol& network;
};
