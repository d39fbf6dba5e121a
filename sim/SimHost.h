// SimHost: the host that an engine or index server on a simulated machine uses.
#pragma once

#include "host/Host.h"
#include "sim/SimDisk.h"
#include "sim/SimNetwork.h"
#include "sim/Simulation.h"

// Has its own random numbers, so that one engine's use doesn't change what another gets.
// Thread: the simulation's. Borrows: the machine and the disk.
class SimHost {
  public:
    SimHost(Simulation& simulation, SimMachine& itsMachine, SimDisk& itsDisk)
        : machine(itsMachine),
          disk(itsDisk),
          scheduler(simulation),
          random_(simulation.seed() * 0x9E3779B97F4A7C15 + itsMachine.address()),
          host{simulation, scheduler, itsDisk, random_, itsMachine} {}
    SimHost(const SimHost&) = delete;
    SimHost& operator=(const SimHost&) = delete;

    SimMachine& machine;
    SimDisk& disk;
    SimScheduler scheduler;

  private:
    SimRandom random_;

  public:
    Host host;
};
