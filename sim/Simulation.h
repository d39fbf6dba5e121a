// Simulation: virtual time. One thread runs every loop of every engine, and the network between them.
#pragma once

#include <functional>
#include <memory>
#include <queue>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "i4min/memory/Random.h"
#include "i4min/threads/Clock.h"
#include "i4min/threads/Scheduler.h"
#include "sim/Synthetic.h"

class SimLoop;

// Random numbers from a seed: the same seed gives the same numbers.
// Thread: one.
class SimRandom final : public Random {
  public:
    explicit SimRandom(u64 seed) : engine_(seed) {}
    u32 next() override { return static_cast<u32>(engine_() >> 32); }
    void fill(std::span<u8> out) override;

  private:
    std::mt19937_64 engine_;
};

// A clock and a queue of events. Time stands still within an event. Events run in the order of their times,
// and those of equal times in the order of creation. The same seed gives the same run: nothing depends on
// addresses, the order of hash tables or the machine's time.
// Thread: one. Owns: the events. Borrows: the loops.
class Simulation final : public Clock {
  public:
    explicit Simulation(u64 seed);
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;
    ~Simulation();

    Moment now() const override { return now_; }
    u32 fileTime() const override { return firstFileTime + static_cast<u32>(now_.us / 1'000'000); }
    u64 seed() const { return seed_; }
    Random& random() { return random_; }
    SyntheticFiles synthetic;

    using Action = std::function<void()>;
    void at(Moment when, Action action);
    void after(i64 us, Action action) { at({now_.us + us}, std::move(action)); }

    // Runs events until done() returns true, which is checked after each event. Returns false if that takes
    // longer than `limitMs`.
    bool runUntil(const std::function<bool()>& done, i64 limitMs);
    void runFor(i64 ms);

    // Gives every loop a turn at least this often in ms; 0 for never. If a story ends sooner with it, a loop
    // has forgotten a deadline or a wake-up.
    void pollLoopsEvery(i64 ms) { pollEvery_ = ms; }

    // Delays every turn by up to `ms`, as on a busy machine where threads overtake each other; 0 for never.
    void makeBusy(i64 ms) { lateness_ = ms; }

    // A hash of everything that happened: equal digests mean equal runs.
    u64 digest() const { return digest_; }
    void note(u64 what);
    u64 turns() const { return turns_; }

    static constexpr u32 firstFileTime = 1'000'000'000;

  private:
    friend class SimLoop;
    static constexpr u64 noLoop = ~u64{0};
    struct Event {
        i64 at;
        u64 number;
        u64 loop;    // its number; noLoop for an action
        u64 ticket;  // of the loop's request; outdated unless it is the loop's last
        std::shared_ptr<Action> action;
        bool operator>(const Event& other) const {
            return at != other.at ? at > other.at : number > other.number;
        }
    };
    void push(i64 at, u64 loop, u64 ticket, std::shared_ptr<Action> action);
    bool step(i64 until);

    const u64 seed_;
    Moment now_{1'000'000};
    SimRandom random_;
    std::priority_queue<Event, std::vector<Event>, std::greater<>> events_;
    std::unordered_map<u64, SimLoop*> loops_;  // running loops by number
    u64 loopsMade_ = 0;
    i64 pollEvery_ = 0;
    i64 lateness_ = 0;
    u64 nextNumber_ = 0;
    u64 turns_ = 0;
    u64 digest_ = 0xCBF29CE484222325;
    i64 stillSince_ = 0;  // events at the current time
};

// The scheduler of one simulated machine. Makes the loops of its threads.
// Thread: the simulation's. Borrows: the simulation.
class SimScheduler final : public Scheduler {
  public:
    explicit SimScheduler(Simulation& itsSimulation) : simulation(itsSimulation) {}
    std::unique_ptr<Loop> makeLoop(Thread& thread) override;

    Simulation& simulation;
    std::function<void()> afterTurn;  // called after each turn of its loops
};
