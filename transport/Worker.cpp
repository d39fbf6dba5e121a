#include "transport/Worker.h"

#include <utility>

#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "transport/SocketPool.h"
#include "transport/Transport.h"

Worker::Worker(SocketPool& pool) : Thread(pool.transport().host.scheduler), pool_(pool) {
    pool_.addWorker(this);
}

Worker::~Worker() {
    pool_.removeWorker(this);
    stop();
}

void Worker::start() {
    if (!set_) {
        set_ = pool_.transport().host.network.new_socket_set(0);
        restingSet_.store(set_.get(), std::memory_order_release);
    }
    Thread::start();
}

void Worker::stop() {
    Thread::stop();
    if (const std::unique_ptr<Task> task = std::move(task_)) task->abandon();
}

Rest Worker::run() {
    if (!task_) task_ = pool_.nextTask();
    if (!task_) return Rest::untilWoken();
    try {
        if (const std::optional<Rest> rest = task_->work(pool_, *set_)) return *rest;
    } catch (const i4_err&) {
        pool_.transport().log.printVerbose("*** Exception in Task\n");
    }
    task_.reset();
    return Rest::none();
}
