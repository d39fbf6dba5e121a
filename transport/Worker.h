// Worker: the thread that makes outgoing connections.
#pragma once

#include <atomic>
#include <memory>

#include "i4min/network/socket_set.h"
#include "i4min/threads/linux/Thread.h"
#include "transport/Task.h"

class SocketPool;

// Takes tasks from a pool's queue and runs them one after the other; SocketPool::addTask wakes it.
// Thread: start() and stop() on any but its own.
// Borrows: the pool, which outlives it. Errors: a task's i4_err is reported in verbose mode.
class Worker : public Thread {
  public:
    explicit Worker(SocketPool& pool);
    ~Worker() override;
    void start() override;
    Rest run() override;
    i4_socket_set* restingSet() const override { return restingSet_.load(std::memory_order_acquire); }

    // Stops the thread, and abandons the task under way.
    void stop();

  private:
    SocketPool& pool_;
    std::unique_ptr<i4_socket_set> set_;
    std::atomic<i4_socket_set*> restingSet_{nullptr};  // the same, for other threads
    std::unique_ptr<Task> task_;                       // under way; of the worker's thread while it runs
};
