// i4_mutex, the one lock of the system, and i4_lock, its scope guard.
#pragma once

#include <mutex>

#include "i4min/memory/annotations.h"
#include "i4min/memory/lock_rank.h"

// A plain mutex, not recursive. Thread: any. In a debug build it aborts the process when it is taken out of
// the order of LockRank.
class CAPABILITY("mutex") i4_mutex {
  public:
    explicit i4_mutex(LockRank rank = LockRank::none) : rank_(rank) {}
    i4_mutex(const i4_mutex&) = delete;
    i4_mutex& operator=(const i4_mutex&) = delete;

    void lock() ACQUIRE();
    void unlock() RELEASE();

  private:
    std::mutex mutex_;
    const LockRank rank_;
};

// Tells the rank check that a lock which is no i4_mutex was taken or given back (Download::lock_ is a
// semaphore). Release builds do nothing.
void i4_rank_push(LockRank rank);
void i4_rank_pop(LockRank rank);
// The same for one that was tried: who gives up rather than waits may take it out of the order.
void i4_rank_push_tried(LockRank rank);

// Whether this thread holds a lock that has a rank; false in a release build.
bool i4_holds_locks();

// Scope guard for anything with lock() and unlock(): an i4_mutex, an LLsafe, a MetaList.
template <class Lockable>
class SCOPED_CAPABILITY i4_guard {
  public:
    explicit i4_guard(Lockable& lockable) ACQUIRE(lockable) : lockable_(lockable) { lockable_.lock(); }
    ~i4_guard() RELEASE() { lockable_.unlock(); }
    i4_guard(const i4_guard&) = delete;
    i4_guard& operator=(const i4_guard&) = delete;

  private:
    Lockable& lockable_;
};

using i4_lock = i4_guard<i4_mutex>;
