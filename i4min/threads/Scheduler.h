// Scheduler, what gives each loop of the engine its turns: threads of the system, or a simulation.
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

// What turns one Thread. Thread: start() and stop() one at a time; wake() any.
class Loop {
  public:
    virtual ~Loop() = default;
    // Gives the thread turns from now on, until one says that its loop has ended. False where the host has no
    // thread to give.
    [[nodiscard]] virtual bool start() = 0;
    // Returns when the thread gets no turn any more. The thread has been told to stop, or its loop has ended.
    virtual void stop() = 0;
    // Ends the rest that is going on; one that comes during a turn ends the next rest.
    virtual void wake() = 0;
};

// Outlives its loops. Thread: any.
class Scheduler {
  public:
    [[nodiscard]] virtual std::unique_ptr<Loop> makeLoop(Thread& thread) = 0;

  protected:
    ~Scheduler() = default;
};
