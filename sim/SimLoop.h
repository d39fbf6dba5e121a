// SimLoop: a loop that the simulation runs.
#pragma once

#include "sim/SimSocketSet.h"
#include "sim/Simulation.h"

class Thread;

// Schedules the turns of one Thread as events of the simulation.
// Thread: the simulation's. Borrows: the scheduler and the thread.
class SimLoop final : public Loop, public SimSleeper {
  public:
    SimLoop(SimScheduler& scheduler, Thread& thread);
    ~SimLoop() override;

    bool start() override;
    void stop() override;
    void wake() override;
    void socketReady() override;
    // Runs one turn, unless `ticket` is outdated.
    void fire(u64 ticket);

  private:
    void wish(i64 at);
    SimSocketSet* set() const;

    SimScheduler& scheduler_;
    Simulation& simulation_;
    Thread& thread_;
    const u64 number_;
    bool running_ = false;
    bool inTurn_ = false;
    bool woken_ = false;  // during this turn
    i64 notBefore_ = 0;
    i64 wished_ = Rest::unlimited;
    u64 ticket_ = 0;
};
