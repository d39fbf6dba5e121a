// UIStatusThread sends a controller the state of downloads and uploads, while it asks for them.
#pragma once

#include <atomic>
#include <functional>

#include "i4min/threads/linux/Thread.h"

// The first packets go out when the first interval has passed.
class UIStatusThread : public Thread {
  public:
    // `send` runs on this thread, and is valid until stop() has returned.
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
