// GapList, the ranges of a file that are still missing.
#pragma once

#include <cstddef>
#include <map>
#include <vector>

#include "i4min/memory/annotations.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/types.h"

class UIInterface;
class i4_file;

// A range of bytes, half-open: `start` is its first byte, `end` one past its last. (0,5) and (5,10) touch,
// and have no byte in common.
struct Gap {
    i64 start = 0;
    i64 end = 0;

    bool operator==(const Gap&) const = default;
};

// A set of gaps that remembers the order in which they came: a gap that grows or shrinks keeps its place, and
// of a gap that is split the tail goes to the end. The order shows in print(), gaps() and the saved form, and
// nothing else depends on it.
//
// What addGap and removeGap make is disjoint, doesn't touch and isn't empty. Gaps that come from outside, by
// append and fromFile, stay as they are; while some of them overlap or touch, each operation looks at every
// gap, else only at those that its range meets.
//
// Thread: any; each public call takes lock_. No call holds two lists' locks at once.
// Owns: its gaps.
class GapList {
  public:
    GapList() = default;
    GapList(const GapList&) = delete;
    GapList& operator=(const GapList&) = delete;
    virtual ~GapList() = default;

    void clear();
    void assign(const GapList& other);  // this list becomes a copy, in the other's order
    void copyTo(GapList& other) const;  // appends copies to the other
    void append(const Gap& gap);        // at the end, as it is
    std::vector<Gap> gaps() const;      // a copy, in order
    bool isComplete() const;
    std::size_t count() const;
    // A gap goes on at both ends of the range: without it there would be one gap more.
    bool isWithin(i64 start, i64 end) const;

    // Whether a gap holds the range's start, or its last byte, or lies within the range. An empty range
    // overlaps a gap that holds its start or ends there.
    bool overlaps(i64 start, i64 end) const;
    // What the range and the first gap share that holds the range's start or its last byte; a gap that lies
    // strictly inside the range is passed over. False, and `out` is as it was, where there is none.
    bool firstOverlap(i64 start, i64 end, Gap& out) const;

    // An empty range changes nothing.
    void addGap(i64 start, i64 end);
    void removeGap(i64 start, i64 end);
    // What was missing of [0, size) is so no more, and what wasn't is.
    void invert(i64 size);

    void print(UIInterface& log) const;

    // The saved form; see the table in GapList.cpp. False, and nothing is written, for more gaps or higher
    // offsets than it can hold.
    bool toFile(i4_file& file) const;
    // False, and the list is as it was, if the file ends early or a gap has no byte in it.
    bool fromFile(i4_file& file);
    u32 fileSize() const;  // of the saved form, in bytes

    // Aborts a debug build if the list isn't what it says above. Runs around each change.
    void checkInvariants() const;

  private:
    using Gaps = std::map<u64, Gap>;  // by the order of their coming
    using Place = Gaps::iterator;

    std::vector<Place> take(i64 start, i64 end) REQUIRES(lock_);
    void putBack(const std::vector<Place>& places) REQUIRES(lock_);
    std::vector<const Gap*> meeting(i64 start, i64 end) const REQUIRES(lock_);
    void appendUnlocked(const Gap& gap) REQUIRES(lock_);
    void clearUnlocked() REQUIRES(lock_);
    void removeGapUnlocked(i64 start, i64 end) REQUIRES(lock_);
    std::vector<Gap> gapsUnlocked() const REQUIRES(lock_);
    void checkUnlocked() const REQUIRES(lock_);

    mutable i4_mutex lock_{LockRank::gapList};
    Gaps gaps_ GUARDED_BY(lock_);
    u64 next_ GUARDED_BY(lock_) = 0;                  // the order of the next to come
    std::map<i64, Place> byStart_ GUARDED_BY(lock_);  // all gaps; none while they are tangled
    bool tangled_ GUARDED_BY(lock_) = false;          // some gaps may overlap, touch or be empty
};
