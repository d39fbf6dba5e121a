#include "i4min/memory/mutex.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "i4min/memory/debug_build.h"

namespace {

// The ranks that this thread holds, in the order of taking. It needs no destructor: static objects still take
// locks when the thread-local ones of the main thread have gone.
struct HeldRanks {
    static constexpr int most = 32;
    LockRank ranks[most];
    int count;
};
thread_local constinit HeldRanks held{};

[[noreturn]] void fail(LockRank rank) {
    std::fprintf(stderr, "lock order: rank %d taken while rank %d is held\n", static_cast<int>(rank),
                 static_cast<int>(held.ranks[held.count - 1]));
    std::abort();
}

}  // namespace

void i4_rank_push(LockRank rank) {
    if (!debugBuild || rank == LockRank::none) return;
    if (held.count > 0 && held.ranks[held.count - 1] >= rank) fail(rank);
    i4_rank_push_tried(rank);
}

void i4_rank_push_tried(LockRank rank) {
    if (!debugBuild || rank == LockRank::none) return;
    if (held.count == HeldRanks::most) fail(rank);
    held.ranks[held.count++] = rank;
}

void i4_rank_pop(LockRank rank) {
    if (!debugBuild) return;
    for (int i = held.count; i-- > 0;) {
        if (held.ranks[i] != rank) continue;
        std::copy(held.ranks + i + 1, held.ranks + held.count, held.ranks + i);
        --held.count;
        return;
    }
}

bool i4_holds_locks() { return held.count > 0; }

void i4_mutex::lock() {
    i4_rank_push(rank_);
    mutex_.lock();
}

void i4_mutex::unlock() {
    // Once unlocked, another thread may destroy this object.
    i4_rank_pop(rank_);
    mutex_.unlock();
}
