// Simulation, a world in virtual time: one thread runs every loop of every engine in it, and the network
// between them.
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

// Random numbers of a seed.
class SimRandom final : public Random {
  public:
    explicit SimRandom(u64 seed) : engine_(seed) {}
    u32 next() override { return static_cast<u32>(engine_() >> 32); }
    void fill(std::span<u8> out) override;

  private:
    std::mt19937_64 engine_;
};

// Time stands still within an event and moves between events, which run in the order of their times, and of
// their making where these are equal. The same seed gives the same run: nothing in it depends on addresses,
// on the order of a hash table or on the time of the machine.
// Thread: one.
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

    // Runs events until the condition holds, which is asked behind each of them; false where it doesn't
    // within so many milliseconds.
    bool runUntil(const std::function<bool()>& done, i64 limitMs);
    void runFor(i64 ms);

    // Every loop gets a turn at least that often, in milliseconds, whatever it says; 0 for never. A story
    // that ends sooner so has a loop that forgot a deadline or a wake-up.
    void pollLoopsEvery(i64 ms) { pollEvery_ = ms; }

    // Every turn comes late by up to so many milliseconds, as on a busy machine, where the threads of one
    // engine overtake each other; 0 for never.
    void makeBusy(i64 ms) { lateness_ = ms; }

    // Of all that has happened: two runs with the same digest were the same.
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
        u64 loop;    // its number, noLoop for an action
        u64 ticket;  // of the loop's wish; one that isn't the loop's last is void
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
    std::unordered_map<u64, SimLoop*> loops_;  // that run, by number
    u64 loopsMade_ = 0;
    i64 pollEvery_ = 0;
    i64 lateness_ = 0;
    u64 nextNumber_ = 0;
    u64 turns_ = 0;
    u64 digest_ = 0xCBF29CE484222325;
    i64 stillSince_ = 0;  // events at the present time
};

// The scheduler of one simulated machine.
class SimScheduler final : public Scheduler {
  public:
    explicit SimScheduler(Simulation& itsSimulation) : simulation(itsSimulation) {}
    std::unique_ptr<Loop> makeLoop(Thread& thread) override;

    Simulation& simulation;
    std::function<void()> afterTurn;  // behind each turn of one of its loops
};
