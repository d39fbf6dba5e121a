// ThreadBound, the mark of what one thread alone may use.
#pragma once

#include <atomic>
#include <thread>

#include "i4min/memory/debug_build.h"

// Bound to no thread at first. Thread: any.
class ThreadBound {
  public:
    void bind() { owner_.store(std::this_thread::get_id(), std::memory_order_relaxed); }
    void unbind() { owner_.store(std::thread::id(), std::memory_order_relaxed); }
    bool isBoundHere() const { return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }
    // Whether the calling thread may: it is the bound one, or none is.
    bool isHere() const {
        const std::thread::id owner = owner_.load(std::memory_order_relaxed);
        return owner == std::thread::id() || owner == std::this_thread::get_id();
    }
    // A debug build aborts, naming the function that asks, unless isHere().
    void check(const char* function = __builtin_FUNCTION()) const {
        if constexpr (debugBuild) {
            if (!isHere()) fail(function);
        }
    }

  private:
    [[noreturn]] static void fail(const char* function);

    std::atomic<std::thread::id> owner_;
};
