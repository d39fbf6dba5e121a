// Task: a unit of work in a socket pool's queue.
#pragma once

#include <optional>

#include "i4min/threads/Scheduler.h"

class SocketPool;
class i4_socket_set;

// A Worker takes it from the queue and runs it on its thread.
// Owned by the queue until it is taken; then it destroys itself when it is done.
class Task {
  public:
    virtual void doTask(SocketPool* pool) = 0;
    virtual ~Task() = default;
    // Runs one step on a worker. Returns empty if the task is done, and destroyed; otherwise the longest wait
    // for the sockets that it added to the set. By default doTask() is the only step.
    virtual std::optional<Rest> work(SocketPool& pool, i4_socket_set& /*set*/) {
        doTask(&pool);
        return std::nullopt;
    }
    // Called instead of the remaining work when the pool or the worker ends.
    virtual void abandon() { delete this; }
};
