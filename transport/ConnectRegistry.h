// Making outgoing connections: ConnectRegistry, which queues them, and the tasks that a Worker runs for them.
#pragma once

#include "i4min/memory/LL.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/threads/linux/RefCounter.h"
#include "transport/Connection.h"
#include "transport/Task.h"

// Looks up and connects one connection, for at most ConnectRegistry::limit; the handshake of a proxy counts.
// What stands is told by connected() and goes to the pool, what fails is told by connectFailed(). An ip of at
// most 0xFFFFFF is no address, and fails at once; one that is closed meanwhile fails as well.
class ConnectTask : public Task {
  public:
    explicit ConnectTask(Ref<Connection> target) : connection(std::move(target)) {}
    void doTask(SocketPool* pool) override;  // deletes itself
    void abandon() override;                 // the connection ends as if the connect had been given up

    const Ref<Connection> connection;

  private:
    // Connects, and hands the connection to the pool; `done` is set from the moment that the pool has it.
    void attempt(SocketPool& pool, bool& done);
};

// Ends a connection on a worker's thread.
class CleanupTask : public Task {
  public:
    explicit CleanupTask(Ref<Connection> target) : connection(std::move(target)) {}
    void doTask(SocketPool* pool) override;  // deletes itself

    const Ref<Connection> connection;
};

// Keeps the client from connecting twice to the same place at the same time. Thread: any.
class ConnectRegistry {
  public:
    static constexpr i32 usualLimit = 8000;  // ms
    Relaxed<i32> limit = usualLimit;         // how long an attempt may take

    // Queues the connection for a worker of the pool, true. While another to the same ip and port is
    // pending it is refused: the reference is given back, nothing is told to the connection, gone() isn't
    // either, false. A null connection does nothing, true.
    bool connect(SocketPool* pool, Ref<Connection> connection) EXCLUDES(lock_);
    // The task's attempt is over.
    void done(ConnectTask* task) EXCLUDES(lock_);

  private:
    i4_mutex lock_{LockRank::connectRegistry};
    LL<ConnectTask> pending_ GUARDED_BY(lock_);
};

extern ConnectRegistry connectRegistry;
