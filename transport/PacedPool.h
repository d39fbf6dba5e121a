// PacedPool, a socket pool that runs all turns on its own thread, within the user's speed limits.
#pragma once

#include "i4min/threads/Clock.h"
#include "transport/SocketPool.h"

// What a speed limit grants one direction: bytes for the time since the last grant. What a turn leaves of a
// grant serves the turns up to the next one, and isn't kept beyond. A plain value.
class BudgetClock {
  public:
    // Under a limit, grants are this many milliseconds apart at least.
    static constexpr i32 shortestGrant = 10;
    // Time that the pool waited with nothing to move counts for at most this many milliseconds, so that
    // traffic doesn't begin with a burst.
    static constexpr i32 longestWait = 40;

    void begin(Moment now) { last_ = now; }
    // The budget for a turn at `now` with a limit in KB/s: elapsed time x limit, truncated; what is left of
    // the last grant if that is too recent; unlimited for a limit of 0. Time too short for a byte is kept.
    i32 grant(f32 limit, Moment now);
    void charge(u32 bytes);
    i32 left() const { return left_; }
    // The pool waited that long with nothing to move.
    void waited(i32 ms);

  private:
    Moment last_;
    i32 left_ = 0;
};

// One connection after the other, in the order of the list, whose head moves to the end with each turn;
// the limits are userMaxUpF and userMaxDownF of the preferences.
//
// Pace: a turn that moved bytes in a direction without a limit or with budget left, or accepted a connection,
// is followed by the next one at once. Otherwise the pool rests 10 ms, or 60 ms after a turn that ran
// nothing or used up a budget. With nothing to do it stays in its poll.
// Thread: run() and what is protected, the pool's own.
class PacedPool : public SocketPool {
  public:
    using SocketPool::SocketPool;
    void start() override;
    Rest run() override;

  protected:
    virtual void elapsed(i32 ms) = 0;  // since the last turn; before the turns
    virtual bool turns();              // the turns of one poll: runTurns(). True if nothing ran
    virtual const char* failureText() const = 0;

    // Turns for all ready connections.
    bool runTurns();
    // One connection's turn, charged to the budgets.
    void runTurn(Connection& connection);
    void rotate();

  private:
    bool runPolled(const Polled& polled);
    Rest pace(const Polled& polled, bool idle);

    Moment lastTime_;
    Moment restedFrom_;  // when a ready socket could have ended the last rest
    BudgetClock upClock_;
    BudgetClock downClock_;
    bool movedUp_ = false;  // in the present turn
    bool movedDown_ = false;
};
