// PacedPool: a socket pool that runs all turns on its own thread, within the user's speed limits.
#pragma once

#include "i4min/threads/Clock.h"
#include "transport/SocketPool.h"

// The budget of one direction under a speed limit: bytes for the time since the last grant. The rest of a
// grant serves turns until the next one and then expires. A plain value.
class BudgetClock {
  public:
    // The least time in ms between two grants under a limit.
    static constexpr i32 shortestGrant = 10;
    // The most idle time in ms that counts for a grant, so that traffic doesn't start with a burst.
    static constexpr i32 longestWait = 40;

    void begin(Moment now) { last_ = now; }
    // Returns the budget of a turn at `now`, for a limit in KB/s: elapsed time x limit, truncated. If the
    // last grant is too recent, returns the rest of it. Unlimited if the limit is 0. Time too short for one
    // byte is carried over.
    i32 grant(f32 limit, Moment now);
    void charge(u32 bytes);
    i32 left() const { return left_; }
    // Records that the pool was idle for `ms` milliseconds.
    void waited(i32 ms);

  private:
    Moment last_;
    i32 left_ = 0;
};

// Runs one connection after the other; the head of the list moves to the end with each turn. The limits are
// userMaxUpF and userMaxDownF of the preferences.
// Pace: a turn that accepted a connection, or moved bytes in a direction with budget left, is followed by the
// next at once. Otherwise the pool rests for 10 ms, or for 60 ms if the turn ran nothing or used up a budget.
// With nothing to do, it waits in poll().
// Thread: run() and the protected members on the pool's own.
class PacedPool : public SocketPool {
  public:
    using SocketPool::SocketPool;
    void start() override;
    Rest run() override;

  protected:
    virtual void elapsed(i32 ms) = 0;  // time since the last turn; called before the turns
    virtual bool turns();              // runs the turns of one poll; true if nothing ran
    virtual const char* failureText() const = 0;

    // Runs a turn of each ready connection.
    bool runTurns();
    // Runs one connection's turn and charges the budgets.
    void runTurn(Connection& connection);
    void rotate();

  private:
    bool runPolled(const Polled& polled);
    Rest pace(const Polled& polled, bool idle);

    Moment lastTime_;
    Moment restedFrom_;  // when a ready socket could have ended the last rest
    BudgetClock upClock_;
    BudgetClock downClock_;
    bool movedUp_ = false;  // in the current turn
    bool movedDown_ = false;
};
