#include "i4min/threads/linux/Thread.h"

Thread::~Thread() { stop(); }

void Thread::finished() {}

void Thread::start() {
    std::lock_guard<std::mutex> lock(lifecycle_);
    if (state() != notRunning) return;
    loop_->stop();
    stopping_.store(false, std::memory_order_release);
    state_.store(running, std::memory_order_release);
    if (!loop_->start()) state_.store(notRunning, std::memory_order_release);
}

bool Thread::turn(Rest& rest) {
    own_.bind();
    if (state() == running) {
        inTurn_ = true;
        rest = run();
        inTurn_ = false;
        if (state() == running) return true;
    }
    own_.unbind();
    const bool ownEnd = !isStopping();
    state_.store(notRunning, std::memory_order_release);
    if (ownEnd) finished();
    return false;
}

void Thread::stop() {
    std::lock_guard<std::mutex> lock(lifecycle_);
    leaveRunning(true);
    loop_->stop();
}

bool Thread::setPriority(i32) { return true; }

void Thread::endLoop() { leaveRunning(false); }

void Thread::leaveRunning(bool byStop) {
    {
        std::lock_guard<std::mutex> lock(leaving_);
        if (state() != running) return;
        stopping_.store(byStop, std::memory_order_release);
        state_.store(askedToStop, std::memory_order_release);
    }
    loop_->wake();
}
