// Thread, the base of every long-running object.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "i4min/memory/types.h"
#include "i4min/threads/linux/ThreadBound.h"

// Runs turns of run() on a thread of its own from start() until stop(), or until run() calls endLoop().
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

    Thread() = default;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    virtual ~Thread();
    // Nothing unless the thread isn't running. Where the host has no thread to give, a warning tells so and
    // the state stays at 2.
    virtual void start();
    // On the thread, in state 2, when its loop ended without stop(); nothing by default.
    virtual void finished();
    virtual void run() = 0;  // one turn of the work; it paces itself by sleepFor()

    // Asks the thread to stop. When it returns, run() and finished() have returned too.
    void stop();
    // Reports success and changes nothing: the host decides on priorities.
    bool setPriority(i32 level);

    // For what only this thread may call while it runs: a debug build aborts on any other.
    void checkOwnThread(const char* function = __builtin_FUNCTION()) const { own_.check(function); }

    State state() const { return state_.load(std::memory_order_acquire); }
    bool isStopping() const { return stopping_.load(std::memory_order_acquire); }

  protected:
    // Sleeps that long, or until stop() or wake() is called. Called on the thread itself.
    void sleepFor(u32 ms);
    // Ends a sleepFor() that is going on, or makes the next one return at once. Thread: any.
    void wake();
    // Called in run(): this turn is the last one.
    void endLoop();

  private:
    static void* enter(void* self);
    void loop();
    void leaveRunning(bool byStop);  // from 0 to 1; nothing in another state
    void join();                     // with lifecycle_ held

    ThreadBound own_;                       // while the loop runs
    std::atomic<State> state_{notRunning};  // left for 1 with mutex_ held
    std::atomic<bool> stopping_{false};     // the way it was left: by stop()
    std::mutex lifecycle_;                  // held through start() and stop()
    std::mutex mutex_;
    std::condition_variable changed_;
    bool woken_ = false;     // guarded by mutex_
    bool joinable_ = false;  // guarded by lifecycle_
    pthread_t thread_{};     // guarded by lifecycle_
};
