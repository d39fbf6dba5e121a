// Worker, the thread on which connections are made.
#pragma once

#include "i4min/memory/mutex.h"
#include "i4min/threads/linux/Thread.h"

class SocketPool;
class i4_socket;

// Takes tasks from a pool's queue and runs them, one after the other. It is woken by SocketPool::addTask;
// while there is nothing to do it sleeps. An i4_err of a task is told in verbose mode, and the worker
// goes on.
// Thread: start() and stop() from any but its own.    Borrows: the pool, which outlives it.
class Worker : public Thread {
  public:
    explicit Worker(SocketPool& pool);
    ~Worker() override;
    void start() override;
    void run() override;

    // Thread::stop, with the connect cancelled that is going on, so that it doesn't wait for the outcome.
    void stop();
    // There may be a task. Thread: any.
    void taskAdded() { wake(); }

    // The worker whose task runs on the calling thread; null on others.
    static Worker* current();
    // While it lives, stop() cancels this socket. Made on the worker's thread; `allowed` is false, and
    // the wait should not begin, once stop() was called.
    class Wait {
      public:
        Wait(Worker* worker, i4_socket& socket);
        ~Wait();
        Wait(const Wait&) = delete;
        Wait& operator=(const Wait&) = delete;
        bool allowed = true;

      private:
        Worker* const worker_;
    };

  private:
    SocketPool& pool_;
    i4_mutex waitLock_{LockRank::connectRegistry};
    i4_socket* waiting_ GUARDED_BY(waitLock_) = nullptr;
    bool givesUp_ GUARDED_BY(waitLock_) = false;
};
