// i4_semaphore, a counting semaphore with a time limit.
#pragma once

#include <condition_variable>
#include <mutex>

#include "i4min/memory/types.h"

// Each signal() lets one wait() return. A signal that nobody waits for is kept for the next wait().
// Thread: any. No thread may wait on it when it is destroyed.
class i4_semaphore {
  public:
    // Waits for a signal at most `ms` milliseconds, without a limit for 0. False when the time ran out.
    bool wait(u32 ms);
    void signal();

  private:
    std::mutex mutex_;
    std::condition_variable signalled_;
    u32 waiting_ = 0;  // sleeping threads that no signal was given to yet
    u32 pending_ = 0;  // signals that nobody has taken
    u32 granted_ = 0;  // signals given to sleeping threads that haven't woken yet
};
