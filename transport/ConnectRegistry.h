// Outgoing connections: ConnectRegistry, which queues them, and the tasks that a Worker runs for them.
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

// Connects one connection within ConnectRegistry::limit, including a proxy's handshake. Success calls
// connected() and adds it to the pool; failure calls connectFailed(). An ip of at most 0xFFFFFF is not an
// address and fails at once; a connection that is closed meanwhile fails too.
//
//   state      event                                        to
//   new        connecting has begun                         under way, its socket in the worker's set
//   new        it can't begin, or the connection closes     failed
//   under way  the socket is connected                      connected
//   under way  socket error, timeout or close               failed
//
// In the last two states the task is done.
class ConnectTask : public Task {
  public:
    explicit ConnectTask(Ref<Connection> target);
    ~ConnectTask() override;
    void doTask(SocketPool* pool) override;  // tries once, and gives up if it can't connect at once
    std::optional<Rest> work(SocketPool& pool, i4_socket_set& set) override;
    void abandon() override;  // ends the connection without connectFailed()

    const Ref<Connection> connection;

  private:
    enum class Attempt { waits, stands, failed };
    Attempt go(const Transport& transport, i4_socket_set& set);
    bool begin(i4_protocol& network);
    void waitIn(i4_socket_set& set);
    void leaveSet();

    std::unique_ptr<i4_socket> socket_;
    Moment until_;
    i4_socket_set* set_ = nullptr;  // the set that holds the socket; null if none
    u32 asked_ = 0;                 // the events that the set reports for it
};

// Ends a connection on a worker's thread, then destroys itself.
// Thread: a worker's. Borrows: the connection, counted.
class CleanupTask : public Task {
  public:
    explicit CleanupTask(Ref<Connection> target) : connection(std::move(target)) {}
    void doTask(SocketPool*) override { connection->end(); }

    const Ref<Connection> connection;
};

// Keeps the client from connecting twice to the same address at the same time.
// Thread: any. Owns: nothing; tasks remove themselves when they end.
class ConnectRegistry {
  public:
    static constexpr i32 usualLimit = 8000;  // ms
    Relaxed<i32> limit = usualLimit;         // ms for one attempt

    // Queues the connection for a worker of its pool and returns true. Returns false if another one to the
    // same ip and port is pending: the reference is then dropped without any call on the connection. Null
    // does nothing and returns true.
    bool connect(Ref<Connection> connection) EXCLUDES(lock_);
    // Removes a finished task.
    void done(ConnectTask* task) EXCLUDES(lock_);

  private:
    i4_mutex lock_{LockRank::connectRegistry};
    LL<ConnectTask> pending_ GUARDED_BY(lock_);
};
