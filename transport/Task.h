// Task: a unit of work in a socket pool's queue.
#pragma once

#include <memory>
#include <optional>

#include "i4min/threads/Scheduler.h"

class SocketPool;
class i4_socket_set;

// Taken from the queue and run by a Worker, on the worker's thread. The queue owns a task until it is
// taken, and then whoever took it.
class Task {
  public:
    virtual void doTask(SocketPool* pool) = 0;
    virtual ~Task() = default;
    // One piece of the work, for a worker: nothing when the task is done; else how long it waits at
    // most for the sockets that it has put into the set. By default doTask() is all of it.
    virtual std::optional<Rest> work(SocketPool& pool, i4_socket_set& /*set*/) {
        doTask(&pool);
        return std::nullopt;
    }
    // Instead of doTask, or of what is left of the work, where pool or worker go.
    virtual void abandon() {}
};
