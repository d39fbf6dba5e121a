#include "transport/SocketPool.h"

#include <algorithm>
#include <utility>

#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/threads/linux/Thread.h"
#include "transport/Connection.h"
#include "transport/Transport.h"

namespace {

constexpr i64 idlePoolRest = 100;  // ms
constexpr u32 checkInterval = 1000;

// Runs a connection's turn on a worker. Borrows: the connection.
class TurnTask : public Task {
  public:
    explicit TurnTask(Ref<Connection> connection) : connection_(std::move(connection)) {}
    void doTask(SocketPool* pool) override { connection_->doTask(pool); }

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

void SocketPool::addTask(std::unique_ptr<Task> task) {
    i4_lock guard(tasksLock_);
    tasks_.push_back(std::move(task));
    for (LL<Thread>::Cursor c; Thread* worker = workers_.next(c);) worker->wake();
}

std::unique_ptr<Task> SocketPool::nextTask() {
    i4_lock guard(tasksLock_);
    if (tasks_.empty()) return nullptr;
    std::unique_ptr<Task> task = std::move(tasks_.front());
    tasks_.pop_front();
    return task;
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
        if (!addUnique(additions_, connection)) return;
        count.add(1);
    }
    if (!isOwnTurn()) wake();
}

void SocketPool::removeConnection(Connection* connection) {
    if (!connection) return;
    {
        i4_lock guard(removalsLock_);
        if (!addUnique(removals_, connection)) return;
    }
    if (!isOwnTurn()) wake();
}

void SocketPool::processChanges() {
    checkOwnThread();
    takeAdditions();
    takeRemovals();
}

void SocketPool::takeAdditions() {
    std::vector<Ref<Connection>> added;  // those that were here already are released without the lock
    i4_lock guard(additionsLock_);
    added.swap(additions_);
    for (const Ref<Connection>& connection : added) {
        if (addUnique(active_, connection.get())) {
            connection->addToSet();
        } else {
            addedAgain();
            transport_.log.print("ERROR: connection already on list\n");
        }
    }
}

void SocketPool::takeRemovals() {
    std::vector<Ref<Connection>> removed;
    {
        i4_lock guard(removalsLock_);
        removed.swap(removals_);
    }
    // Their ends run without the lock: what they tell may ask for further removals.
    for (const Ref<Connection>& connection : removed) {
        if (removeFrom(active_, connection.get())) {
            count.add(-1);
            leaving(*connection);
        }
        left_.add(1);
        connection->cleanup();
    }
}

void SocketPool::addedAgain() { count.add(-1); }
void SocketPool::leaving(Connection&) {}

void SocketPool::deleteConnections() {
    checkOwnThread();
    takeAdditions();
    while (!active_.empty()) {
        const Ref<Connection> connection = active_.front();
        active_.erase(active_.begin());
        count.add(-1);
        leaving(*connection);
        connection->cleanup();
    }
    takeRemovals();
    while (const std::unique_ptr<Task> task = nextTask()) task->abandon();
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
    for (const Ref<Connection>& connection : active_) {
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
            for (const Ref<Connection>& connection : active_) {
                if (!connection->isReady()) continue;
                idle = false;
                addTask(std::make_unique<TurnTask>(connection));
            }
        }
        processChanges();
    } catch (const i4_err&) {
        transport_.log.printVerbose("*** Exception in socketpool::run()\n");
    }
    const Rest rest = restWithSockets();
    return idle ? Rest{idlePoolRest * 1000, std::max(rest.most, idlePoolRest * 1000)} : rest;
}
