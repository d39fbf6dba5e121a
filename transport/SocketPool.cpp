#include "transport/SocketPool.h"

#include <algorithm>

#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/threads/linux/RefCounter.h"
#include "i4min/threads/linux/Thread.h"
#include "transport/Connection.h"
#include "transport/Transport.h"

namespace {

constexpr i64 idlePoolRest = 100;  // ms
constexpr u32 checkInterval = 1000;

// Runs a connection's turn on a worker. Borrows: the connection.
class TurnTask : public Task {
  public:
    explicit TurnTask(Connection* connection) : connection_(connection) {}
    void doTask(SocketPool* pool) override {
        const std::unique_ptr<TurnTask> self(this);
        connection_->doTask(pool);
    }

  private:
    const Ref<Connection> connection_;
};

}  // namespace

SocketPool::SocketPool(Transport& transport) : Thread(transport.host.scheduler), transport_(transport) {}

SocketPool::~SocketPool() {
    stop();
    deleteConnections();
}

void SocketPool::start() {
    if (!set_) {
        set_ = transport_.host.network.new_socket_set(0);
        restingSet_.store(set_.get(), std::memory_order_release);
    }
    Thread::start();
}

// Tasks.

void SocketPool::addTask(Task* task) {
    i4_lock guard(tasksLock_);
    tasks_.add(task);
    for (LL<Thread>::Cursor c; Thread* worker = workers_.next(c);) worker->wake();
}

Task* SocketPool::nextTask() {
    i4_lock guard(tasksLock_);
    return tasks_.removeAt(0);
}

void SocketPool::addWorker(Thread* worker) {
    i4_lock guard(tasksLock_);
    workers_.addUnique(worker);
}

void SocketPool::removeWorker(Thread* worker) {
    i4_lock guard(tasksLock_);
    workers_.remove(worker);
}

// Additions and removals.

void SocketPool::addConnection(Connection* connection) {
    if (!connection) return;
    {
        i4_lock guard(additionsLock_);
        if (!additions_.addUnique(connection)) return;
        connection->addRef();
        count.add(1);
    }
    if (!isOwnTurn()) wake();
}

void SocketPool::removeConnection(Connection* connection) {
    if (!connection) return;
    {
        i4_lock guard(removalsLock_);
        if (!removals_.addUnique(connection)) return;
        connection->addRef();
    }
    if (!isOwnTurn()) wake();
}

void SocketPool::processChanges() {
    checkOwnThread();
    takeAdditions();
    takeRemovals();
}

void SocketPool::takeAdditions() {
    LL<Connection> twice;
    {
        i4_lock guard(additionsLock_);
        while (Connection* connection = additions_.removeAt(0)) {
            if (active_.addUnique(connection)) {
                connection->addToSet();
            } else {
                addedAgain();
                transport_.log.print("ERROR: connection already on list\n");
                twice.add(connection);
            }
        }
    }
    while (Connection* connection = twice.removeAt(0)) connection->release();
}

void SocketPool::takeRemovals() {
    LL<Connection> removed;
    {
        i4_lock guard(removalsLock_);
        if (removals_.isEmpty()) return;
        removed.addAll(removals_);
        removals_.clear();
    }
    // Connections end without the lock held: gone() may request further removals.
    while (Connection* connection = removed.removeAt(0)) {
        const Ref<Connection> asked = Ref<Connection>::adopt(connection);
        const bool wasHere = active_.remove(connection);
        if (wasHere) {
            count.add(-1);
            leaving(connection);
        }
        left_.add(1);
        connection->cleanup();
        if (wasHere) connection->release();
    }
}

void SocketPool::addedAgain() { count.add(-1); }
void SocketPool::leaving(Connection*) {}

void SocketPool::deleteConnections() {
    checkOwnThread();
    takeAdditions();
    while (Connection* connection = active_.removeAt(0)) {
        count.add(-1);
        leaving(connection);
        connection->cleanup();
        connection->release();
    }
    takeRemovals();
    while (Task* task = nextTask()) task->abandon();
}

// Waiting.

void SocketPool::wake() {
    if (isOwnTurn()) {
        again_ = true;
        return;
    }
    if (!wakeAsked_.exchange(true, std::memory_order_acq_rel)) Thread::wake();
}

SocketPool::Polled SocketPool::takePolled() {
    const bool woken = wakeAsked_.exchange(false, std::memory_order_acq_rel) || again_;
    again_ = false;
    return {set_->ready(), woken};
}

Rest SocketPool::restWithSockets() {
    const u32 now = transport_.host.clock.ticks();
    const bool check = now - lastCheck_ >= checkInterval;
    if (check) lastCheck_ = now;
    bool isWatched = false;
    for (LL<Connection>::Cursor c; Connection* connection = active_.next(c);) {
        if (check) connection->checkStall(now);
        connection->refreshInterest();
        isWatched = isWatched || connection->isWatched();
        // A connection that was closed before it was added gets its turn too.
        if (connection->isClosing() && !connection->isBusy()) again_ = true;
    }
    if (again_) return Rest::none();
    return isWatched ? Rest::atMost(lastCheck_ + checkInterval - now) : Rest::untilWoken();
}

Rest SocketPool::run() {
    bool idle = true;
    try {
        const Polled polled = takePolled();
        if (polled.ready > 0 || polled.woken) {
            for (LL<Connection>::Cursor c; Connection* connection = active_.next(c);) {
                if (!connection->isReady()) continue;
                idle = false;
                addTask(new TurnTask(connection));
            }
        }
        processChanges();
    } catch (const i4_err&) {
        transport_.log.printVerbose("*** Exception in socketpool::run()\n");
    }
    const Rest rest = restWithSockets();
    return idle ? Rest{idlePoolRest * 1000, std::max(rest.most, idlePoolRest * 1000)} : rest;
}
