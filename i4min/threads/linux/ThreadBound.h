// ThreadBound, which checks that an object is used on its own thread only.
#pragma once

#include <atomic>
#include <thread>

#include "i4min/memory/debug_build.h"

// The thread that an object belongs to; none at first. Thread: any. Errors: check() aborts a debug build.
class ThreadBound {
  public:
    void bind() { owner_.store(std::this_thread::get_id(), std::memory_order_relaxed); }
    void unbind() { owner_.store(std::thread::id(), std::memory_order_relaxed); }
    bool isBoundHere() const { return owner_.load(std::memory_order_relaxed) == std::this_thread::get_id(); }
    // Whether the calling thread may use the object: it is the bound one, or none is bound.
    bool isHere() const {
        const std::thread::id owner = owner_.load(std::memory_order_relaxed);
        return owner == std::thread::id() || owner == std::this_thread::get_id();
    }
    // Aborts a debug build unless isHere(), and names the calling function.
    void check(const char* function = __builtin_FUNCTION()) const {
        if constexpr (debugBuild) {
            if (!isHere()) fail(function);
        }
    }

  private:
    [[noreturn]] static void fail(const char* function);

    std::atomic<std::thread::id> owner_;
};
