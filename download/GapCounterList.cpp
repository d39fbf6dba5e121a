#include "download/GapCounterList.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <memory>
#include <vector>

#include "core/UIInterface.h"
#include "download/GapList.h"

namespace {

void adjust(i32& count, i32 delta) {
    if (delta == countRequested && count >= countRequested) return;  // asked for once only
    if (count == countDone || delta == countDone) {
        count = delta == -countDone ? 0 : countDone;
        return;
    }
    count = std::max(0, count + delta);
    // A run that is being fetched stays so when its last source goes.
    if (count == countRequested - 1) count = countRequested;
}

bool joinable(const GapCounter& a, const GapCounter& b) { return a.count == b.count && a.end == b.start; }
bool ascend(const GapCounter& a, const GapCounter& b) { return a.start < b.start && a.end <= b.start; }
bool holds(const GapCounter& run, i64 at) { return run.start <= at && at < run.end; }

}  // namespace

GapCounter::GapCounter(i64 from, i64 to, i32 number) : start(from), end(to), count(number) {
    assert(start <= end && count >= 0);
}

GapCounterList::~GapCounterList() { deleteAll(*this); }

void GapCounterList::setSize(i64 size) {
    const i4_guard guard(*this);
    size_ = size;
    appendRun({0, size, 0});
    checkRuns();
}

i64 GapCounterList::size() {
    const i4_guard guard(*this);
    return size_;
}

void GapCounterList::reset() {
    const i4_guard guard(*this);
    deleteAll(*this);
    index_.clear();
    regular_ = true;
}

void GapCounterList::copyTo(GapCounterList& other) {
    std::vector<GapCounter> copies;
    {
        const i4_guard guard(*this);
        for (Cursor c; const GapCounter* run = next(c);) copies.push_back(*run);
    }
    const i4_guard guard(other);
    for (const GapCounter& run : copies) other.appendRun(run);
    other.checkRuns();
}

void GapCounterList::addSource(const Gap& range) { change(range.start, range.end, 1); }
void GapCounterList::removeSource(const Gap& range) { change(range.start, range.end, -1); }

void GapCounterList::change(i64 start, i64 end, i32 delta) {
    const i4_guard guard(*this);
    end = std::min(end, size_);
    if (start < 0 || start >= end) return;
    checkRuns();
    changeRuns(start, end, delta);
    if (regular_) {
        joinAround(start, end);
    } else {
        joinAll();
    }
    checkRuns();
}

void GapCounterList::changeRuns(i64 start, i64 end, i32 delta) {
    while (start < end) {
        Cursor where;
        if (!findRun(start, where)) {
            if (delta > 0) appendRun({start, end, delta});
            return;
        }
        if (at(where)->start < start) where = splitRun(where, start);
        GapCounter* run = at(where);
        if (end < run->end) splitRun(where, end);
        adjust(run->count, delta);
        start = run->end;
    }
}

bool GapCounterList::findRun(i64 start, Cursor& where) const {
    if (regular_) {
        const auto behind = index_.upper_bound(start);
        if (behind == index_.begin()) return false;
        where = std::prev(behind)->second;
        return holds(*at(where), start);
    }
    while (const GapCounter* run = next(where)) {
        if (holds(*run, start)) return true;
    }
    return false;
}

// The run ends at `middle` from now on; the result is a new run with what lay behind.
GapCounterList::Cursor GapCounterList::splitRun(Cursor where, i64 middle) {
    GapCounter* run = at(where);
    auto tail = std::make_unique<GapCounter>(middle, run->end, run->count);
    const Cursor behind = insertAfter(where, tail.release());
    run->end = middle;
    if (regular_) index_.emplace(middle, behind);
    return behind;
}

void GapCounterList::appendRun(const GapCounter& run) {
    const Cursor last = index_.empty() ? Cursor() : index_.rbegin()->second;
    const GapCounter* before = at(last);
    if (before && (joinable(*before, run) || !ascend(*before, run))) regular_ = false;
    auto copy = std::make_unique<GapCounter>(run);
    if (regular_) {
        index_.emplace(run.start, insertAfter(last, copy.release()));
    } else {
        index_.clear();
        addUnsafe(copy.release());
    }
}

// Joins neighbours where the range was changed and at its edges: elsewhere none can have become alike.
void GapCounterList::joinAround(i64 start, i64 end) {
    auto a = index_.upper_bound(start);
    for (int back = 0; back < 2 && a != index_.begin(); ++back) --a;
    while (a != index_.end() && a->first <= end) {
        const auto b = std::next(a);
        if (b == index_.end()) return;
        GapCounter* run = at(a->second);
        GapCounter* following = at(b->second);
        if (!joinable(*run, *following)) {
            ++a;
            continue;
        }
        const std::unique_ptr<GapCounter> joined(following);
        run->end = joined->end;
        index_.erase(b);
        removeNext(a->second);
    }
}

// Joins all neighbours, and makes the index anew if the runs are in order now.
void GapCounterList::joinAll() {
    index_.clear();
    regular_ = true;
    Cursor where;
    GapCounter* run = next(where);
    if (!run) return;
    index_.emplace(run->start, where);
    for (Cursor ahead = where; GapCounter* following = next(ahead); ahead = where) {
        if (joinable(*run, *following)) {
            const std::unique_ptr<GapCounter> joined(following);
            run->end = joined->end;
            removeNext(where);
            continue;
        }
        regular_ = regular_ && ascend(*run, *following);
        where = ahead;
        run = following;
        index_.emplace(run->start, where);
    }
    if (!regular_) index_.clear();
}

void GapCounterList::print(UIInterface& log) {
    const i4_guard guard(*this);
    log.printLine("#   (start- end)   count");
    int number = 0;
    for (Cursor c; const GapCounter* run = next(c);) {
        log.printLine("(%d) (%lld-%lld) %d", ++number, static_cast<long long>(run->start),
                      static_cast<long long>(run->end), run->count);
    }
}

void GapCounterList::checkInvariants() {
    const i4_guard guard(*this);
    checkRuns();
}

void GapCounterList::checkRuns() const {
#ifndef NDEBUG
    assert(regular_ || index_.empty());
    if (!regular_) return;
    const GapCounter* before = nullptr;
    auto entry = index_.begin();
    for (Cursor c; const GapCounter* run = next(c); ++entry) {
        assert(entry != index_.end() && entry->first == run->start && at(entry->second) == run);
        assert(!before || (ascend(*before, *run) && !joinable(*before, *run)));
        before = run;
    }
    assert(entry == index_.end());
#endif
}
