// Making outgoing connections: ConnectRegistry, which queues them, and the tasks that a Worker runs for them.
#pragma once

#include <memory>

#include "i4min/memory/LL.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/threads/Clock.h"
#include "i4min/threads/linux/RefCounter.h"
#include "transport/Connection.h"
#include "transport/Task.h"

class i4_protocol;
struct Transport;

// Looks up and connects one connection, for at most ConnectRegistry::limit; the handshake of a proxy counts.
// What stands is told by connected() and goes to the pool, what fails is told by connectFailed(). An ip of at
// most 0xFFFFFF is no address, and fails at once; one that is closed meanwhile fails as well.
//
//   state      event                                        to
//   new        the connect has begun                        under way, its socket in the worker's set
//   new        it can't begin, or the connection closes     failed
//   under way  the socket stands                            connected
//   under way  the socket fails, the time is up, or close   failed
//
// In the last two states the task is done.
class ConnectTask : public Task {
  public:
    explicit ConnectTask(Ref<Connection> target);
    ~ConnectTask() override;
    void doTask(SocketPool* pool) override;  // begins, and gives up what doesn't stand at once
    std::optional<Rest> work(SocketPool& pool, i4_socket_set& set) override;
    void abandon() override;  // the connection ends as if the connect had been given up

    const Ref<Connection> connection;

  private:
    enum class Attempt { waits, stands, failed };
    Attempt go(const Transport& transport, i4_socket_set& set);
    bool begin(i4_protocol& network);
    void waitIn(i4_socket_set& set);
    void leaveSet();

    std::unique_ptr<i4_socket> socket_;
    Moment until_;
    i4_socket_set* set_ = nullptr;  // in which the socket is
    u32 asked_ = 0;                 // and what it is asked about there
};

// Ends a connection on a worker's thread.
class CleanupTask : public Task {
  public:
    explicit CleanupTask(Ref<Connection> target) : connection(std::move(target)) {}
    void doTask(SocketPool*) override { connection->end(); }

    const Ref<Connection> connection;
};

// Keeps the client from connecting twice to the same place at the same time. Thread: any.
class ConnectRegistry {
  public:
    static constexpr i32 usualLimit = 8000;  // ms
    Relaxed<i32> limit = usualLimit;         // how long an attempt may take

    // Queues the connection for a worker of its pool, true. While another to the same ip and port is
    // pending it is refused: the reference is given back, nothing is told to the connection, gone() isn't
    // either, false. A null connection does nothing, true.
    bool connect(Ref<Connection> connection) EXCLUDES(lock_);
    // The task's attempt is over.
    void done(ConnectTask* task) EXCLUDES(lock_);

  private:
    i4_mutex lock_{LockRank::connectRegistry};
    LL<ConnectTask> pending_ GUARDED_BY(lock_);
};
