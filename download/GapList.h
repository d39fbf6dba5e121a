// GapList, the ranges of a file that are still missing.
#pragma once

#include <cstddef>
#include <vector>

#include "download/RangeMap.h"
#include "i4min/memory/annotations.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/types.h"

class i4_file;

// A range of bytes, half-open: `start` is its first byte, `end` one past its last. (0,5) and (5,10) touch,
// and have no byte in common.
struct Gap {
    i64 start = 0;
    i64 end = 0;

    bool operator==(const Gap&) const = default;
};

// A set of gaps that remembers the order in which they came: a gap that grows or shrinks keeps its place,
// gaps that are joined get the earliest place among them, and the tail of a gap that is split goes to the
// end. The order shows in gaps() and in the saved form, and nothing else depends on it.
//
// Gaps don't overlap, don't touch and aren't empty. Offsets are at least 0 and below 2^62.
//
// Thread: any; each public call takes lock_. No call holds the locks of two lists at once.
// Owns: its gaps.
class GapList {
  public:
    GapList() = default;
    GapList(const GapList&) = delete;
    GapList& operator=(const GapList&) = delete;
    virtual ~GapList() = default;

    void assign(const GapList& other);  // this list becomes a copy, in the other's order
    std::vector<Gap> gaps() const;      // a copy, in order
    bool isComplete() const { return count() == 0; }
    std::size_t count() const;
    // A gap goes on at both ends of the range: without it there would be one gap more.
    bool isWithin(i64 start, i64 end) const;
    // Whether a byte of the range is missing. An empty range overlaps a gap that holds its start or ends
    // there.
    bool overlaps(i64 start, i64 end) const;

    // What lies in both the range and a gap, ascending.
    std::vector<Gap> missing(i64 start, i64 end) const;

    // Joins the range and the gaps that it meets or touches into one gap. An empty range changes nothing.
    void addGap(i64 start, i64 end);
    void removeGap(i64 start, i64 end);  // an empty range changes nothing
    // What was missing of [0, size) is so no more, and what wasn't is.
    void invert(i64 size);

    // The saved form; see the table in GapList.cpp. False, and nothing is written, for more gaps or higher
    // offsets than it can hold.
    bool toFile(i4_file& file) const;
    // False, and the list is as it was, if the file ends early or a gap has no byte in it. Gaps that overlap
    // or touch are joined.
    bool fromFile(i4_file& file);
    u32 fileSize() const;  // of the saved form, in bytes

    // Aborts a debug build if the list isn't what it says above.
    void checkInvariants() const;

  private:
    static constexpr u64 present = 0;
    static constexpr i64 offsetLimit = i64{1} << 62;

    void addUnlocked(i64 start, i64 end) REQUIRES(lock_);
    void removeUnlocked(i64 start, i64 end) REQUIRES(lock_);
    void replaceAll(const std::vector<Gap>& gaps) REQUIRES(lock_);
    std::vector<Gap> gapsUnlocked() const REQUIRES(lock_);
    std::size_t countUnlocked() const REQUIRES(lock_);

    mutable i4_mutex lock_{LockRank::gapList};
    // The order number of each gap, and `present` between the gaps and behind the last.
    RangeMap<u64> orders_ GUARDED_BY(lock_){offsetLimit, present};
    u64 next_ GUARDED_BY(lock_) = present + 1;  // the number of the next gap to come
};
