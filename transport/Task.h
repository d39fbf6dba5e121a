// Task, a unit of work on a socket pool's queue.
#pragma once

class SocketPool;

// Taken from the queue and run by a Worker, on the worker's thread. The queue owns a task until it is
// taken; a task that doTask was called on owns itself.
class Task {
  public:
    virtual void doTask(SocketPool* pool) = 0;
    virtual ~Task() = default;
    // Instead of doTask, where the pool goes with the task still queued.
    virtual void abandon() { delete this; }
};
