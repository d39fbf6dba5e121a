#include "download/GapList.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <utility>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"

// ---- queries

bool GapList::overlaps(i64 start, i64 end) const {
    const i4_lock guard(lock_);
    if (start == end) {
        --start;
        ++end;
    }
    for (const auto& run : orders_.runs(start, end)) {
        if (run.value != present) return true;
    }
    return false;
}

std::vector<Gap> GapList::missing(i64 start, i64 end) const {
    const i4_lock guard(lock_);
    std::vector<Gap> found;
    for (const auto& run : orders_.runs(start, end)) {
        if (run.value != present) found.push_back({std::max(start, run.start), std::min(end, run.end)});
    }
    return found;
}

bool GapList::isWithin(i64 start, i64 end) const {
    const i4_lock guard(lock_);
    const auto run = orders_.at(start);
    return run.value != present && run.start < start && end < run.end;
}

std::vector<Gap> GapList::gaps() const {
    const i4_lock guard(lock_);
    return gapsUnlocked();
}

std::vector<Gap> GapList::gapsUnlocked() const {
    std::vector<std::pair<u64, Gap>> ordered;
    for (const auto& run : orders_.runs()) {
        if (run.value != present) ordered.push_back({run.value, {run.start, run.end}});
    }
    std::sort(ordered.begin(), ordered.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    std::vector<Gap> gaps;
    gaps.reserve(ordered.size());
    for (const auto& [order, gap] : ordered) gaps.push_back(gap);
    return gaps;
}

std::size_t GapList::count() const {
    const i4_lock guard(lock_);
    return countUnlocked();
}

// Gaps and what is here alternate, and the last run is here.
std::size_t GapList::countUnlocked() const { return orders_.count() / 2; }

void GapList::checkInvariants() const {
    const i4_lock guard(lock_);
    orders_.checkInvariants();
    assert(countUnlocked() == gapsUnlocked().size());
}

// ---- changes

void GapList::addGap(i64 start, i64 end) {
    const i4_lock guard(lock_);
    addUnlocked(start, end);
}

void GapList::addUnlocked(i64 start, i64 end) {
    if (start >= end) return;
    assert(start >= 0 && end < offsetLimit);
    Gap joined{start, end};
    u64 order = next_;
    for (const auto& run : orders_.runs(start - 1, end + 1)) {
        if (run.value == present) continue;
        joined = {std::min(joined.start, run.start), std::max(joined.end, run.end)};
        order = std::min(order, run.value);
    }
    if (order == next_) ++next_;
    orders_.set(joined.start, joined.end, order);
}

void GapList::removeGap(i64 start, i64 end) {
    const i4_lock guard(lock_);
    removeUnlocked(start, end);
}

void GapList::removeUnlocked(i64 start, i64 end) {
    if (start >= end) return;
    const auto run = orders_.at(start);
    orders_.set(start, end, present);
    if (run.value != present && run.start < start && end < run.end) orders_.set(end, run.end, next_++);
}

void GapList::invert(i64 size) {
    const i4_lock guard(lock_);
    const std::vector<Gap> old = gapsUnlocked();
    replaceAll({{0, size}});
    for (const Gap& gap : old) removeUnlocked(gap.start, gap.end);
}

void GapList::assign(const GapList& other) {
    const std::vector<Gap> copies = other.gaps();
    const i4_lock guard(lock_);
    replaceAll(copies);
}

void GapList::replaceAll(const std::vector<Gap>& gaps) {
    orders_.reset(offsetLimit, present);
    for (const Gap& gap : gaps) addUnlocked(gap.start, gap.end);
}

// ---- the saved form
//
//   0      u16  count
//   2+8i   u32  start of gap i, in the list's order
//   6+8i   u32  its end

bool GapList::toFile(i4_file& file) const {
    constexpr i64 highest = std::numeric_limits<u32>::max();
    const std::vector<Gap> copies = gaps();
    if (copies.size() > std::numeric_limits<u16>::max()) return false;
    for (const Gap& gap : copies) {
        if (gap.end > highest) return false;
    }
    bool written = file.write_16(static_cast<u16>(copies.size())) == 2;
    for (const Gap& gap : copies) {
        written = written && file.write_32(static_cast<u32>(gap.start)) == 4 &&
                  file.write_32(static_cast<u32>(gap.end)) == 4;
    }
    return written;
}

bool GapList::fromFile(i4_file& file) {
    std::vector<Gap> read;
    try {
        const u32 count = file.read_16();
        file.expect(8ull * count);
        for (u32 i = 0; i < count; ++i) {
            const i64 start = file.read_32();
            const i64 end = file.read_32();
            if (start >= end) return false;
            read.push_back({start, end});
        }
    } catch (const i4_err&) {
        return false;
    }
    const i4_lock guard(lock_);
    replaceAll(read);
    return true;
}

u32 GapList::fileSize() const { return static_cast<u32>(8 * count() + 2); }
