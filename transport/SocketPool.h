// SocketPool: polls the sockets of all connections and runs a turn of each ready one.
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

    // Both take effect at the end of the pool's current turn. Repeated calls and null are allowed.
    void addConnection(Connection* connection) EXCLUDES(additionsLock_);
    void removeConnection(Connection* connection) EXCLUDES(removalsLock_);
    // Ends all connections and drops all tasks. For shutdown, after the thread has stopped.
    void deleteConnections();

    // Makes the pool check its connections now, or once more after the current turn.
    void wake();
    // Notes progress that the connections' counters don't show. Thread: the pool's.
    void noteProgress() { progress_ = true; }
    u32 leftCount() const { return left_; }              // connections that have left so far; wraps around
    i4_socket_set* set() const { return set_.get(); }    // pool's thread only; null before start()
    const Budgets& budgets() const { return budgets_; }  // of the current turn; pool's thread only

    Relaxed<i32> count;  // connections in the pool or being added to it

  protected:
    // The result of the poll before this turn.
    struct Polled {
        i32 ready;   // sockets with events; below 0 if the poll failed
        bool woken;  // wake() was called
    };
    Polled takePolled();
    // Updates the set after a turn. Returns how long the pool may rest.
    Rest restWithSockets();
    // Carries out the queued additions and removals.
    void processChanges() EXCLUDES(additionsLock_, removalsLock_);
    // Called if an added connection was in `active_` already: corrects `count`.
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
    std::atomic<i4_socket_set*> restingSet_{nullptr};  // the same pointer, for other threads
    std::atomic<bool> wakeAsked_{false};
    bool again_ = false;  // the pool's own turn asked for another turn
    Relaxed<u32> left_;
    u32 lastCheck_ = 0;  // ticks
};
