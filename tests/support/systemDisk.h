// The system's disk and random numbers, for tests without an engine.
#pragma once

#include "host/PosixHost.h"

inline Disk& systemDisk() {
    static PosixDisk disk;
    return disk;
}
inline Random& systemRandom() {
    static PosixRandom random;
    return random;
}
