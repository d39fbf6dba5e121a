// The machine that the process runs on.
#pragma once

#include "host/Host.h"
#include "host/PosixDisk.h"
#include "i4min/network/protocol.h"

class PosixClock final : public Clock {
  public:
    Moment now() const override;
    u32 fileTime() const override;
};

class PosixRandom final : public Random {
  public:
    u32 next() override;
    // Raises where the system gives no random bytes.
    void fill(std::span<u8> out) override;
};

// Each loop is a thread of the system.
class PosixScheduler final : public Scheduler {
  public:
    std::unique_ptr<Loop> makeLoop(Thread& thread) override;
};

class PosixHost {
  public:
    PosixClock clock;
    PosixScheduler scheduler;
    PosixDisk disk;
    PosixRandom random;
    i4_tcpip_protocol network{nullptr};
    Host host{clock, scheduler, disk, random, network};
};
