// Scheduler, which runs the engine's loops: on threads of the system, or in a simulation.
#pragma once

#include <limits>
#include <memory>

#include "i4min/memory/types.h"

class Thread;

// How long a loop rests after a turn, in microseconds.
struct Rest {
    i64 least;  // not shorter, whatever wakes it but stop()
    i64 most;   // not longer; until then a wake-up or a ready socket ends it

    static constexpr i64 unlimited = std::numeric_limits<i64>::max();

    static constexpr Rest none() { return {0, 0}; }
    static constexpr Rest atMost(i64 ms) { return {0, ms * 1000}; }
    static constexpr Rest exactly(i64 ms) { return {ms * 1000, ms * 1000}; }
    static constexpr Rest untilWoken() { return {0, unlimited}; }
};

// Runs the turns of one Thread object. Thread: start() and stop() one at a time; wake() any.
class Loop {
  public:
    virtual ~Loop() = default;
    // Begins to run turns, until one reports that the loop has ended. False if the host has no thread left.
    [[nodiscard]] virtual bool start() = 0;
    // Returns when the last turn has ended. Before, the thread was told to stop or its loop has ended.
    virtual void stop() = 0;
    // Ends the current rest; during a turn, the next one.
    virtual void wake() = 0;
};

// Makes the loops of Thread objects. Outlives its loops. Thread: any.
class Scheduler {
  public:
    [[nodiscard]] virtual std::unique_ptr<Loop> makeLoop(Thread& thread) = 0;

  protected:
    ~Scheduler() = default;
};
