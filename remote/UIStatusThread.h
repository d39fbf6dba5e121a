// UIStatusThread: sends a controller the state of downloads and uploads while it asks for it.
#pragma once

#include <atomic>
#include <functional>

#include "i4min/threads/linux/Thread.h"

// Calls `send` once per interval, the first time after one interval.
// Thread: start() and stop() on the owner's. Owns: the function.
class UIStatusThread : public Thread {
  public:
    // `send` runs on this thread and must stay valid until stop() has returned.
    UIStatusThread(Scheduler& scheduler, std::function<void()> send, u32 intervalMs)
        : Thread(scheduler), send_(std::move(send)), interval_(intervalMs) {}
    ~UIStatusThread() override;
    void start() override;
    Rest run() override;

  private:
    const std::function<void()> send_;
    const u32 interval_;
    std::atomic<bool> rested_{false};
};
