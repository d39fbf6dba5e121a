// SocketPool, which polls the sockets of all connections and gives each ready one its turn.
#pragma once

#include <atomic>
#include <deque>
#include <memory>
#include <vector>

#include "i4min/memory/LL.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/memory/types.h"
#include "i4min/network/socket_set.h"
#include "i4min/threads/linux/RefCounter.h"
#include "i4min/threads/linux/Thread.h"
#include "transport/Packet.h"
#include "transport/Task.h"

class Connection;
class Thread;
struct Transport;

// The base: its run() hands ready connections to workers as tasks.
// Thread: the public operations any, where they don't say otherwise; run() and what is protected, the
// pool's own.
// Holds: a reference to each connection that it has.
class SocketPool : public Thread {
  public:
    explicit SocketPool(Transport& transport);
    ~SocketPool() override;
    void start() override;
    Rest run() override;
    i4_socket_set* restingSet() const override { return restingSet_.load(std::memory_order_acquire); }
    Transport& transport() const { return transport_; }

    void addTask(std::unique_ptr<Task> task) EXCLUDES(tasksLock_);
    std::unique_ptr<Task> nextTask() EXCLUDES(tasksLock_);  // null where there is none
    // A thread that takes tasks: it is woken when there is one.
    void addWorker(Thread* worker) EXCLUDES(tasksLock_);
    void removeWorker(Thread* worker) EXCLUDES(tasksLock_);

    // Both take effect at the end of the pool's present turn, and may be asked for twice. Null does
    // nothing.
    void addConnection(Connection* connection) EXCLUDES(additionsLock_);
    void removeConnection(Connection* connection) EXCLUDES(removalsLock_);
    // Ends every connection that the pool has, and drops its tasks: for the shut-down, when the thread
    // has stopped.
    void deleteConnections();

    // Has the pool look at its connections now, or once more when the present turn has ended.
    void wake();
    // Something moved that no connection's counters show; on the pool's thread.
    void noteProgress() { progress_ = true; }
    u32 leftCount() const { return left_; }              // connections that have left since the start; wraps
    i4_socket_set* set() const { return set_.get(); }    // on the pool's thread; null before start()
    const Budgets& budgets() const { return budgets_; }  // of the present turn, on the pool's thread

    Relaxed<i32> count;  // connections in the pool or on their way into it

  protected:
    // What the rest before this turn has brought.
    struct Polled {
        i32 ready;   // sockets with events; below 0 when the poll failed
        bool woken;  // wake() was called
    };
    Polled takePolled();
    // After a turn: brings the set up to date. Returns how long the pool may rest.
    Rest restWithSockets();
    // Takes additions and removals into effect.
    void processChanges() EXCLUDES(additionsLock_, removalsLock_);
    // An addition was in `active_` already: takes back what its adding put on `count`.
    virtual void addedAgain();
    virtual void leaving(Connection& connection);  // it was taken out of `active_`; nothing by default

    std::vector<Ref<Connection>> active_;
    Budgets budgets_;
    bool progress_ = false;

  private:
    void takeAdditions() EXCLUDES(additionsLock_);
    void takeRemovals() EXCLUDES(removalsLock_);

    i4_mutex tasksLock_{LockRank::socketPool};
    std::deque<std::unique_ptr<Task>> tasks_ GUARDED_BY(tasksLock_);
    LL<Thread> workers_ GUARDED_BY(tasksLock_);
    i4_mutex additionsLock_{LockRank::socketPool};
    std::vector<Ref<Connection>> additions_ GUARDED_BY(additionsLock_);
    i4_mutex removalsLock_{LockRank::socketPool};
    std::vector<Ref<Connection>> removals_ GUARDED_BY(removalsLock_);
    Transport& transport_;
    std::unique_ptr<i4_socket_set> set_;
    std::atomic<i4_socket_set*> restingSet_{nullptr};  // the same, for other threads
    std::atomic<bool> wakeAsked_{false};
    bool again_ = false;  // a turn of the pool's own asked for another
    Relaxed<u32> left_;
    u32 lastCheck_ = 0;  // ticks
};
