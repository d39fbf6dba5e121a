#include "i4min/threads/linux/Thread.h"

#include <chrono>

#include "i4min/memory/error.h"
#include "i4min/threads/linux/linux_threads.h"

Thread::~Thread() { stop(); }

void Thread::finished() {}

void Thread::start() {
    std::lock_guard<std::mutex> lock(lifecycle_);
    if (state() != notRunning) return;
    join();
    stopping_.store(false, std::memory_order_release);
    state_.store(running, std::memory_order_release);
    if (::pthread_create(&thread_, nullptr, enter, this) != 0) {
        state_.store(notRunning, std::memory_order_release);
        i4_error()("a thread couldn't be started");
        return;
    }
    joinable_ = true;
}

void* Thread::enter(void* self) {
    return i4_run_guarded(
        [](void* thread) -> void* {
            static_cast<Thread*>(thread)->loop();
            return nullptr;
        },
        self);
}

void Thread::loop() {
    while (state() == running) run();
    if (!isStopping()) finished();
    state_.store(notRunning, std::memory_order_release);
}

void Thread::stop() {
    std::lock_guard<std::mutex> lock(lifecycle_);
    State expected = running;
    stopping_.store(true, std::memory_order_release);
    state_.compare_exchange_strong(expected, askedToStop);
    wake();
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

void Thread::endLoop() {
    State expected = running;
    state_.compare_exchange_strong(expected, askedToStop);
}
