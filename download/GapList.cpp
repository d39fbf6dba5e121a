#include "download/GapList.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <limits>
#include <optional>

#include "core/UIInterface.h"
#include "i4min/file/file.h"
#include "i4min/memory/error.h"

namespace {

bool holdsStart(const Gap& gap, i64 start) { return start >= gap.start && start < gap.end; }
bool holdsLast(const Gap& gap, i64 end) { return end > gap.start && end <= gap.end; }

// The first entry of an index by start whose gap may reach `start`. In a disjoint list only the last gap that
// begins before can.
template <class Index>
auto firstReaching(Index& index, i64 start) {
    auto at = index.lower_bound(start);
    if (at != index.begin() && std::prev(at)->second->second.end >= start) --at;
    return at;
}

}  // namespace

// ---- what a range meets

// The gaps that the range meets or touches, in order, taken out of the index for as long as they change.
std::vector<GapList::Place> GapList::take(i64 start, i64 end) {
    std::vector<Place> places;
    if (tangled_) {
        for (Place at = gaps_.begin(); at != gaps_.end(); ++at) places.push_back(at);
        return places;
    }
    auto at = firstReaching(byStart_, start);
    while (at != byStart_.end() && at->first <= end) {
        places.push_back(at->second);
        at = byStart_.erase(at);
    }
    std::sort(places.begin(), places.end(), [](Place a, Place b) { return a->first < b->first; });
    return places;
}

void GapList::putBack(const std::vector<Place>& places) {
    if (gaps_.empty()) tangled_ = false;
    if (tangled_) return;
    for (const Place place : places) byStart_.emplace(place->second.start, place);
}

std::vector<const Gap*> GapList::meeting(i64 start, i64 end) const {
    std::vector<const Gap*> met;
    if (tangled_ || start > end) {
        for (const auto& [order, gap] : gaps_) met.push_back(&gap);
        return met;
    }
    std::vector<Gaps::const_iterator> places;
    for (auto at = firstReaching(byStart_, start); at != byStart_.end() && at->first <= end; ++at) {
        places.push_back(at->second);
    }
    std::sort(places.begin(), places.end(), [](auto a, auto b) { return a->first < b->first; });
    for (const auto place : places) met.push_back(&place->second);
    return met;
}

bool GapList::overlaps(i64 start, i64 end) const {
    const i4_lock guard(lock_);
    const auto test = [&](const Gap& gap) {
        return holdsStart(gap, start) || holdsLast(gap, end) || (start <= gap.start && end >= gap.end);
    };
    if (tangled_ || start > end) {
        return std::any_of(gaps_.begin(), gaps_.end(), [&](const auto& entry) { return test(entry.second); });
    }
    for (auto at = firstReaching(byStart_, start); at != byStart_.end() && at->first <= end; ++at) {
        if (test(at->second->second)) return true;
    }
    return false;
}

bool GapList::firstOverlap(i64 start, i64 end, Gap& out) const {
    const i4_lock guard(lock_);
    for (const Gap* gap : meeting(start, end)) {
        if (!holdsStart(*gap, start) && !holdsLast(*gap, end)) continue;
        out = {std::max(start, gap->start), std::min(end, gap->end)};
        return true;
    }
    return false;
}

bool GapList::isWithin(i64 start, i64 end) const {
    const i4_lock guard(lock_);
    const std::vector<const Gap*> met = meeting(start, end);
    return std::any_of(met.begin(), met.end(),
                       [&](const Gap* gap) { return gap->start < start && end < gap->end; });
}

// ---- changes

// The first gap that the range meets takes it in and keeps its place; those that follow go into that one.
void GapList::addGap(i64 start, i64 end) {
    if (start >= end) return;
    const i4_lock guard(lock_);
    checkUnlocked();
    std::vector<Place> kept;
    std::optional<Place> merged;
    bool there = false;
    for (const Place place : take(start, end)) {
        Gap& gap = place->second;
        const Gap old = gap;
        kept.push_back(place);
        if (there) continue;
        if (old.start <= start && old.end >= end) {
            there = true;
            if (!merged) continue;
            kept.erase(std::find(kept.begin(), kept.end(), *merged));
            gaps_.erase(*merged);
        } else if (old.start <= start && old.end >= start) {
            if (merged) {
                (*merged)->second.start = old.start;
            } else {
                gap.end = end;
                start = old.start;
            }
        } else if (old.end >= end && old.start <= end) {
            if (merged) {
                (*merged)->second.end = old.end;
            } else {
                gap.start = start;
                end = old.end;
            }
        } else if (old.start >= start && old.end <= end) {
            if (!merged) gap = {start, end};
        } else {
            continue;
        }
        if (there) continue;
        if (merged) {
            kept.pop_back();
            gaps_.erase(place);
        } else {
            merged = place;
        }
    }
    if (!there && !merged) kept.push_back(gaps_.emplace_hint(gaps_.end(), next_++, Gap{start, end}));
    putBack(kept);
    checkUnlocked();
}

void GapList::removeGap(i64 start, i64 end) {
    const i4_lock guard(lock_);
    checkUnlocked();
    removeGapUnlocked(start, end);
    checkUnlocked();
}

void GapList::removeGapUnlocked(i64 start, i64 end) {
    if (start >= end) return;
    std::vector<Place> kept;
    bool done = false;
    for (const Place place : take(start, end)) {
        Gap& gap = place->second;
        if (!done && start <= gap.start && end > gap.start) {
            gap.start = end;
            if (gap.start >= gap.end) {
                gaps_.erase(place);
                continue;
            }
        }
        kept.push_back(place);
        if (done || start <= gap.start || start >= gap.end) continue;
        done = gap.end >= end;
        if (gap.end > end) kept.push_back(gaps_.emplace_hint(gaps_.end(), next_++, Gap{end, gap.end}));
        gap.end = start;
    }
    putBack(kept);
}

void GapList::invert(i64 size) {
    const i4_lock guard(lock_);
    checkUnlocked();
    const std::vector<Gap> old = gapsUnlocked();
    clearUnlocked();
    if (size > 0) appendUnlocked({0, size});
    for (const Gap& gap : old) removeGapUnlocked(gap.start, gap.end);
    checkUnlocked();
}

void GapList::append(const Gap& gap) {
    const i4_lock guard(lock_);
    checkUnlocked();
    appendUnlocked(gap);
    checkUnlocked();
}

void GapList::appendUnlocked(const Gap& gap) {
    if (!tangled_) {
        const auto at = firstReaching(byStart_, gap.start);
        tangled_ = gap.start >= gap.end || (at != byStart_.end() && at->first <= gap.end);
        if (tangled_) byStart_.clear();
    }
    const Place place = gaps_.emplace_hint(gaps_.end(), next_++, gap);
    if (!tangled_) byStart_.emplace(gap.start, place);
}

void GapList::clear() {
    const i4_lock guard(lock_);
    clearUnlocked();
}

void GapList::clearUnlocked() {
    gaps_.clear();
    byStart_.clear();
    tangled_ = false;
}

// ---- copies

void GapList::assign(const GapList& other) {
    const std::vector<Gap> copies = other.gaps();
    const i4_lock guard(lock_);
    clearUnlocked();
    for (const Gap& gap : copies) appendUnlocked(gap);
    checkUnlocked();
}

void GapList::copyTo(GapList& other) const {
    for (const Gap& gap : gaps()) other.append(gap);
}

std::vector<Gap> GapList::gaps() const {
    const i4_lock guard(lock_);
    return gapsUnlocked();
}

std::vector<Gap> GapList::gapsUnlocked() const {
    std::vector<Gap> copies;
    copies.reserve(gaps_.size());
    for (const auto& [order, gap] : gaps_) copies.push_back(gap);
    return copies;
}

bool GapList::isComplete() const {
    const i4_lock guard(lock_);
    return gaps_.empty();
}

std::size_t GapList::count() const {
    const i4_lock guard(lock_);
    return gaps_.size();
}

void GapList::print(UIInterface& log) const {
    log.printLine("\n#   (start- end)");
    int number = 0;
    for (const Gap& gap : gaps()) {
        log.printLine("(%d) (%lld-%lld)", ++number, static_cast<long long>(gap.start),
                      static_cast<long long>(gap.end));
    }
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
        if (gap.start < 0 || gap.start > highest || gap.end < 0 || gap.end > highest) return false;
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
    clearUnlocked();
    for (const Gap& gap : read) appendUnlocked(gap);
    checkUnlocked();
    return true;
}

u32 GapList::fileSize() const {
    const i4_lock guard(lock_);
    return static_cast<u32>(8 * gaps_.size() + 2);
}

// ---- invariants

void GapList::checkInvariants() const {
    const i4_lock guard(lock_);
    checkUnlocked();
}

void GapList::checkUnlocked() const {
#ifndef NDEBUG
    if (tangled_) {
        assert(byStart_.empty() && !gaps_.empty());
        return;
    }
    assert(byStart_.size() == gaps_.size());
    const Gap* before = nullptr;
    for (const auto& [start, place] : byStart_) {
        const Gap& gap = place->second;
        assert(gap.start == start && gap.start < gap.end && place->first < next_);
        assert(!before || before->end < gap.start);
        before = &gap;
    }
#endif
}
