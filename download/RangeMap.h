// RangeMap, one value for each byte of a file, kept as runs of bytes with equal values.
#pragma once

#include <algorithm>
#include <cassert>
#include <cstddef>
#include <iterator>
#include <map>
#include <utility>

#include "i4min/memory/types.h"

// A value for each offset of [0, size). The runs ascend, cover [0, size) without a hole and don't overlap,
// and neighbours have different values. Ranges are half-open and are cut to [0, size); an empty range has no
// runs. An operation costs a lookup among the runs, and the runs that its range meets.
//
// Value has == and is small: runs are returned as copies.
// Thread: none of its own; the owner locks.
template <class Value>
class RangeMap {
    using Starts = std::map<i64, Value>;

  public:
    struct Run {
        i64 start;
        i64 end;
        Value value;
    };

    // The runs of a range, in ascending order, for a range-based for. A change ends the walk.
    class Runs {
      public:
        class Iterator {
          public:
            Iterator(const RangeMap& map, typename Starts::const_iterator at) : map_(&map), at_(at) {}
            Run operator*() const { return {at_->first, map_->endOf(at_), at_->second}; }
            Iterator& operator++() {
                ++at_;
                return *this;
            }
            bool operator==(const Iterator&) const = default;

          private:
            const RangeMap* map_;
            typename Starts::const_iterator at_;
        };

        Runs(Iterator first, Iterator behind) : first_(first), behind_(behind) {}
        Iterator begin() const { return first_; }
        Iterator end() const { return behind_; }

      private:
        Iterator first_;
        Iterator behind_;
    };

    RangeMap() = default;  // size 0, no run
    explicit RangeMap(i64 size, Value value = {}) { reset(size, value); }

    // All of [0, size) gets this value, as one run, which is empty for a size of 0.
    void reset(i64 size, Value value = {}) {
        assert(size >= 0);
        size_ = size;
        starts_.clear();
        starts_.emplace(0, value);
    }

    i64 size() const { return size_; }
    std::size_t count() const { return starts_.size(); }  // of all runs

    Runs runs() const { return {{*this, starts_.begin()}, {*this, starts_.end()}}; }
    // The runs that have a byte in the range, in full length.
    Runs runs(i64 start, i64 end) const {
        start = std::max<i64>(start, 0);
        end = std::min(end, size_);
        if (start >= end) return {{*this, starts_.end()}, {*this, starts_.end()}};
        return {{*this, std::prev(starts_.upper_bound(start))}, {*this, starts_.lower_bound(end)}};
    }
    // The run of this byte, which must be one of [0, size).
    Run at(i64 offset) const {
        assert(0 <= offset && offset < size_);
        return *runs(offset, offset + 1).begin();
    }

    void set(i64 start, i64 end, const Value& value) {
        change(start, end, [&](Value& old) { old = value; });
    }
    // Calls `function` with a reference to the value of each run of the range. Runs that the range meets only
    // in part are split before.
    template <class Function>
    void change(i64 start, i64 end, Function function) {
        start = std::max<i64>(start, 0);
        end = std::min(end, size_);
        if (start >= end) return;
        const Place first = split(start);
        const Place behind = split(end);
        for (Place at = first; at != behind; ++at) function(at->second);
        join(first, behind);
        checkRuns(start, end);
    }

    // Aborts a debug build if the runs aren't as described above. Each change checks the runs that it met.
    void checkInvariants() const { checkRuns(0, size_); }

  private:
    using Place = typename Starts::iterator;

    i64 endOf(typename Starts::const_iterator at) const { return ++at == starts_.end() ? size_ : at->first; }

    // The run that begins at `offset`. It is cut off from the run before where none begins there yet. The
    // result is the end for an offset equal to the size.
    Place split(i64 offset) {
        const Place next = starts_.lower_bound(offset);
        if (offset == size_ || (next != starts_.end() && next->first == offset)) return next;
        return starts_.emplace_hint(next, offset, std::prev(next)->second);
    }

    // Joins each run from `first` to `behind`, both included, to the one before if their values are equal.
    void join(Place first, Place behind) {
        const Place stop = behind == starts_.end() ? behind : std::next(behind);
        while (first != stop) {
            const bool equal = first != starts_.begin() && std::prev(first)->second == first->second;
            first = equal ? starts_.erase(first) : std::next(first);
        }
    }

    // Checks the runs of the range and their neighbours.
    void checkRuns([[maybe_unused]] i64 start, [[maybe_unused]] i64 end) const {
#ifndef NDEBUG
        assert(starts_.empty() ? size_ == 0 : starts_.begin()->first == 0);
        const Value* before = nullptr;
        auto at = starts_.upper_bound(start);
        for (int back = 0; back < 2 && at != starts_.begin(); ++back) --at;
        for (; at != starts_.end() && at->first <= end; ++at) {
            assert(at->first < endOf(at) || size_ == 0);
            assert(!before || !(*before == at->second));
            before = &at->second;
        }
#endif
    }

    i64 size_ = 0;
    Starts starts_;  // each run's start and value
};
