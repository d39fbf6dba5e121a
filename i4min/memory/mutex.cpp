#include "i4min/memory/mutex.h"

#ifndef NDEBUG
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

thread_local std::vector<LockRank> heldRanks;

}  // namespace

void i4_rank_push(LockRank rank) {
    if (rank == LockRank::none) return;
    if (!heldRanks.empty() && heldRanks.back() >= rank) {
        std::fprintf(stderr, "lock order: rank %d taken while rank %d is held\n", static_cast<int>(rank),
                     static_cast<int>(heldRanks.back()));
        std::abort();
    }
    heldRanks.push_back(rank);
}

void i4_rank_pop(LockRank rank) {
    if (rank == LockRank::none) return;
    for (auto held = heldRanks.end(); held != heldRanks.begin();) {
        if (*--held == rank) {
            heldRanks.erase(held);
            return;
        }
    }
}
#else
void i4_rank_push(LockRank) {}
void i4_rank_pop(LockRank) {}
#endif

void i4_mutex::lock() {
    i4_rank_push(rank_);
    mutex_.lock();
}

void i4_mutex::unlock() {
    // Once unlocked, another thread may destroy this object.
    i4_rank_pop(rank_);
    mutex_.unlock();
}
