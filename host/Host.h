// Host, the machine that an engine runs on: the real one, or a simulated one.
#pragma once

#include "i4min/file/Disk.h"
#include "i4min/memory/Random.h"
#include "i4min/threads/Clock.h"
#include "i4min/threads/Scheduler.h"

class i4_protocol;

// The services that an engine gets from its machine. Owns none of them: they and this struct outlive the
// engine. Thread: any, as each service tells.
struct Host {
    Clock& clock;
    Scheduler& scheduler;
    Disk& disk;
    Random& random;
    i4_protocol& network;
};
