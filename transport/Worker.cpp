#include "transport/Worker.h"

#include "app/UIInterface.h"
#include "i4min/memory/error.h"
#include "i4min/network/socket.h"
#include "transport/SocketPool.h"
#include "transport/Task.h"

namespace {

// An idle worker is woken by addTask; the limit only keeps the sleep a finite number.
constexpr u32 idleSleep = 24 * 3600 * 1000;

thread_local Worker* currentWorker = nullptr;

}  // namespace

Worker::Worker(SocketPool& pool) : pool_(pool) { pool_.addWorker(this); }

Worker::~Worker() {
    pool_.removeWorker(this);
    stop();
}

Worker* Worker::current() { return currentWorker; }

void Worker::start() {
    if (state() != notRunning) return;
    {
        i4_lock guard(waitLock_);
        givesUp_ = false;
    }
    Thread::start();
}

void Worker::stop() {
    {
        i4_lock guard(waitLock_);
        givesUp_ = true;
        if (waiting_) waiting_->cancel();
    }
    Thread::stop();
}

void Worker::run() {
    currentWorker = this;
    Task* task = pool_.nextTask();
    if (!task) {
        sleepFor(idleSleep);
        return;
    }
    try {
        task->doTask(&pool_);
    } catch (const i4_err&) {
        theLog->printVerbose("*** Exception in Task\n");
    }
}

Worker::Wait::Wait(Worker* worker, i4_socket& socket) : worker_(worker) {
    if (!worker_) return;
    i4_lock guard(worker_->waitLock_);
    allowed = !worker_->givesUp_;
    worker_->waiting_ = &socket;
}

Worker::Wait::~Wait() {
    if (!worker_) return;
    i4_lock guard(worker_->waitLock_);
    worker_->waiting_ = nullptr;
}
