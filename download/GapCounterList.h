// GapCounterList, a whole file as runs of bytes that share one count.
#pragma once

#include <map>

#include "i4min/memory/LLsafe.h"
#include "i4min/memory/annotations.h"
#include "i4min/memory/types.h"

class UIInterface;

struct Gap;

// What a run's count says.
//
//   0 to 999       so many sources hold it
//   1000 to 1999   it is being fetched, and so many above 1000 hold it
//   2000           it is here, whatever else comes; only -2000 takes that away
inline constexpr i32 countRequested = 1000;
inline constexpr i32 countDone = 2000;

// One run of bytes, from `start` up to but not including `end`. The constructor says "Bad GapCounter" for an
// end below the start or a negative count, and takes them all the same.
struct GapCounter {
    GapCounter(i64 start, i64 end, i32 count);

    i64 start;
    i64 end;
    i32 count;

    bool operator==(const GapCounter&) const = default;
};

// After setSize, and after each change, the runs ascend, cover [0, size) without hole or overlap, and no two
// neighbours have the same count. A change costs no more than the runs that it meets.
//
// Thread: any; each public call takes the list's lock. A walk with next() holds lock() around it, or has
// another lock that keeps every change away. Runs come and go only through the operations of this class, not
// through those of its base.
// Owns: its runs.
class CAPABILITY("list") GapCounterList : public LLsafe<GapCounter> {
  public:
    GapCounterList() : LLsafe<GapCounter>(LockRank::progress) {}
    ~GapCounterList() override;

    // One run (0, size, 0) more. To begin anew, reset first.
    void setSize(i64 size);
    i64 size();
    void reset();                        // no run is left; the size stays
    void copyTo(GapCounterList& other);  // appends copies to the other, whose size stays

    // Adds `delta` to the counts of the range, cut at the file's size. The deltas are +1, -1 (a source comes,
    // goes), +1000, -1000 (a chunk is asked for, given back), +2000, -2000 (bytes arrive, are given up). An
    // empty range changes nothing.
    void change(i64 start, i64 end, i32 delta);
    void addSource(const Gap& range);
    void removeSource(const Gap& range);
    void addRequested(i64 start, i64 end) { change(start, end, countRequested); }
    void removeRequested(i64 start, i64 end) { change(start, end, -countRequested); }
    void addDone(i64 start, i64 end) { change(start, end, countDone); }
    void removeDone(i64 start, i64 end) { change(start, end, -countDone); }

    void print(UIInterface& log);

    // Aborts a debug build if the runs aren't what is told above. Runs around each change.
    void checkInvariants();

  protected:
    // The first run that holds this byte; false where there is none.
    bool findRun(i64 start, Cursor& where) const REQUIRES(this);

  private:
    using Index = std::map<i64, Cursor>;

    Cursor splitRun(Cursor where, i64 at) REQUIRES(this);
    void appendRun(const GapCounter& run) REQUIRES(this);
    void changeRuns(i64 start, i64 end, i32 delta) REQUIRES(this);
    void joinAround(i64 start, i64 end) REQUIRES(this);
    void joinAll() REQUIRES(this);
    void checkRuns() const REQUIRES(this);

    i64 size_ GUARDED_BY(this) = 0;
    // By its start, where each run stands; empty while the runs are irregular.
    Index index_ GUARDED_BY(this);
    // The runs ascend and no neighbours are to be joined. It is not so after setSize or copyTo onto runs that
    // are there, or after a change on a list that was given no size; then a change looks at every run.
    bool regular_ GUARDED_BY(this) = true;
};
