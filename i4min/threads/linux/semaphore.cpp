#include "i4min/threads/linux/semaphore.h"

#include <chrono>

bool i4_semaphore::wait(u32 ms) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (pending_ > 0) {
        --pending_;
        return true;
    }
    ++waiting_;
    const auto granted = [this] { return granted_ > 0; };
    if (ms == 0) {
        signalled_.wait(lock, granted);
    } else if (!signalled_.wait_for(lock, std::chrono::milliseconds(ms), granted)) {
        --waiting_;
        return false;
    }
    --granted_;
    return true;
}

void i4_semaphore::signal() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (waiting_ > 0) {
        --waiting_;
        ++granted_;
        signalled_.notify_one();
    } else {
        ++pending_;
    }
}
