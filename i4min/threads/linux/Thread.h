// Thread, the base of every long-running object.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

#include "i4min/memory/types.h"
#include "i4min/threads/Scheduler.h"
#include "i4min/threads/linux/ThreadBound.h"

class i4_socket_set;

// Gets turns of run() from its scheduler, from start() until stop(), or until run() calls endLoop(). No turn
// sleeps or waits for anybody: it says how long to rest instead.
//
//   state            event                        to
//   2 not running    start                        0 running
//   0 running        stop, from another thread    1 asked to stop
//   0 running        run() calls endLoop()        2, once run() has returned
//   1 asked to stop  run() returns                2 not running
//
// Thread: start() and stop() from any thread but its own, so neither in run() nor in finished(). The
// destructor of the most derived class calls stop(), so that no turn runs on a half-destroyed object.
class Thread {
  public:
    enum State : u32 { running = 0, askedToStop = 1, notRunning = 2 };

    explicit Thread(Scheduler& scheduler) : loop_(scheduler.makeLoop(*this)) {}
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    virtual ~Thread();
    // Nothing unless the thread isn't running. Where the host has no thread to give, a warning tells so and
    // the state stays at 2.
    virtual void start();
    // On the thread, in state 2, when its loop ended without stop(); nothing by default.
    virtual void finished();
    virtual Rest run() = 0;  // one turn of the work

    // Asks the thread to stop. When it returns, run() and finished() have returned too.
    void stop();
    // Ends a rest that is going on, or the next one. Thread: any.
    void wake() { loop_->wake(); }
    // Reports success and changes nothing: the host decides on priorities.
    bool setPriority(i32 level);

    // For what only this thread may call while it runs: a debug build aborts on any other.
    void checkOwnThread(const char* function = __builtin_FUNCTION()) const { own_.check(function); }
    // Whether the caller is a turn of this thread.
    bool isOwnTurn() const { return own_.isBoundHere() && inTurn_; }

    State state() const { return state_.load(std::memory_order_acquire); }
    bool isStopping() const { return stopping_.load(std::memory_order_acquire); }

    // For a scheduler, on the thread. One turn; false when the loop has ended instead, and finished() has
    // returned.
    bool turn(Rest& rest);
    // The sockets for which it rests, null for none. The same from the first start() on. Thread: any.
    virtual i4_socket_set* restingSet() const { return nullptr; }
    // Its work can wait for everybody else's: the host gives it what is left over.
    virtual bool isBackground() const { return false; }

  protected:
    // Called in run(): this turn is the last one.
    void endLoop();

  private:
    void leaveRunning(bool byStop);  // from 0 to 1; nothing in another state

    ThreadBound own_;      // while the loop runs
    bool inTurn_ = false;  // of the own thread
    std::atomic<State> state_{notRunning};
    std::atomic<bool> stopping_{false};  // the way it left `running`: by stop()
    std::mutex lifecycle_;               // held through start() and stop()
    std::mutex leaving_;                 // held while `running` is left
    const std::unique_ptr<Loop> loop_;
};
