// SimHost, one simulated machine as an engine or an index server sees it.
#pragma once

#include "host/Host.h"
#include "sim/SimDisk.h"
#include "sim/SimNetwork.h"
#include "sim/Simulation.h"

// Its random numbers are its own, so that what one engine draws doesn't change what another gets.
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
