// GapCounterList, a whole file as runs of bytes that share one count.
#pragma once

#include "download/GapList.h"
#include "download/RangeMap.h"
#include "i4min/memory/annotations.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/types.h"

// What a run's count says.
//
//   0 to 999       so many sources hold it
//   1000 to 1999   it is being fetched, and so many above 1000 hold it
//   2000           it is here, whatever else comes; only -2000 takes that away
inline constexpr i32 countRequested = 1000;
inline constexpr i32 countDone = 2000;

// One run of bytes, from `start` up to but not including `end`.
struct GapCounter {
    i64 start;
    i64 end;
    i32 count;

    bool operator==(const GapCounter&) const = default;
};

// The runs ascend, cover [0, size) without hole or overlap, and no two neighbours have the same count. There
// are none before setSize. A change costs no more than the runs that it meets.
//
// Thread: any; each public call takes lock_.
class GapCounterList {
  public:
    // All counts are 0: one run, which is empty for a file of size 0.
    void setSize(i64 size);
    u32 count() const;  // of the runs

    // Adds `delta` to the counts of the range, cut at the file's size. The deltas are +1, -1 (a source comes,
    // goes), +1000, -1000 (a chunk is asked for, given back), +2000, -2000 (bytes arrive, are given up). An
    // empty range changes nothing.
    void change(i64 start, i64 end, i32 delta);
    void addRequested(i64 start, i64 end) { change(start, end, countRequested); }
    void removeRequested(i64 start, i64 end) { change(start, end, -countRequested); }
    void addDone(i64 start, i64 end) { change(start, end, countDone); }
    void removeDone(i64 start, i64 end) { change(start, end, -countDone); }

    // The first bytes of the range whose count is below that, up to where it changes or the range ends. An
    // empty range where there are none.
    Gap firstBelow(i32 limit, const Gap& range) const;

    // Calls `visit` with each run, as a GapCounter, in ascending order. It holds the lock meanwhile, so
    // `visit` must not call this list.
    template <class Visit>
    void forEach(Visit visit) const {
        const i4_lock guard(lock_);
        for (const auto& run : counts_.runs()) visit(GapCounter{run.start, run.end, run.value});
    }

  private:
    mutable i4_mutex lock_{LockRank::progress};
    RangeMap<i32> counts_ GUARDED_BY(lock_);
};
