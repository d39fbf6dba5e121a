// The machine that the process runs on.
#pragma once

#include "host/Host.h"
#include "host/PosixDisk.h"
#include "i4min/network/protocol.h"

// The system's monotonic clock and its wall clock. Thread: any.
class PosixClock final : public Clock {
  public:
    Moment now() const override;
    u32 fileTime() const override;
};

// The kernel's random numbers. Thread: any.
class PosixRandom final : public Random {
  public:
    u32 next() override;
    // Raises where the system gives no random bytes.
    void fill(std::span<u8> out) override;
};

// Runs each loop on a thread of the system that is its own. Thread: any.
// Errors: Loop::start() returns false, after a warning, when the system has no thread left.
class PosixScheduler final : public Scheduler {
  public:
    std::unique_ptr<Loop> makeLoop(Thread& thread) override;
};

// Owns the services of the real machine. Outlives every engine that uses `host`.
class PosixHost {
  public:
    PosixClock clock;
    PosixScheduler scheduler;
    PosixDisk disk;
    PosixRandom random;
    i4_tcpip_protocol network{nullptr};
    Host host{clock, scheduler, disk, random, network};
};
