#include "i4min/threads/linux/Thread.h"

#include <chrono>

#include "i4min/threads/linux/linux_threads.h"

Thread::~Thread() { stop(); }

void Thread::finished() {}

void Thread::start() {
    std::lock_guard<std::mutex> lock(lifecycle_);
    if (state() != notRunning) return;
    join();
    {
        std::lock_guard<std::mutex> turn(mutex_);
        woken_ = false;
        stopping_.store(false, std::memory_order_release);
        state_.store(running, std::memory_order_release);
    }
    joinable_ = i4_start_thread(thread_, enter, this);
    if (!joinable_) state_.store(notRunning, std::memory_order_release);
}

void* Thread::enter(void* self) {
    static_cast<Thread*>(self)->loop();
    return nullptr;
}

void Thread::loop() {
    own_.bind();
    while (state() == running) run();
    own_.unbind();
    const bool ownEnd = !isStopping();
    state_.store(notRunning, std::memory_order_release);
    if (ownEnd) finished();
}

void Thread::stop() {
    std::lock_guard<std::mutex> lock(lifecycle_);
    leaveRunning(true);
    join();
}

void Thread::join() {
    if (!joinable_) return;
    joinable_ = false;
    if (::pthread_equal(thread_, ::pthread_self())) {
        ::pthread_detach(thread_);
    } else {
        ::pthread_join(thread_, nullptr);
    }
}

bool Thread::setPriority(i32) { return true; }

void Thread::sleepFor(u32 ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return woken_ || state() != running; });
    woken_ = false;
}

void Thread::wake() {
    std::lock_guard<std::mutex> lock(mutex_);
    woken_ = true;
    changed_.notify_one();
}

void Thread::endLoop() { leaveRunning(false); }

void Thread::leaveRunning(bool byStop) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (state() != running) return;
    stopping_.store(byStop, std::memory_order_release);
    state_.store(askedToStop, std::memory_order_release);
    changed_.notify_one();
}
