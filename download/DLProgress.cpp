#include "download/DLProgress.h"

#include <algorithm>
#include <numeric>

#include "download/PartialFile.h"
#include "i4min/memory/Random.h"

u32 Chunk::part() const { return start / PARTSIZE; }

void DLProgress::setup(const PartialFile& partial, Random& random) {
    const i64 size = partial.fileSize();
    GapList here;
    here.assign(partial);
    here.invert(size);
    setSize(size);
    for (const Gap& range : here.gaps()) addDone(range.start, range.end);
    parts_.assign(partial.getPartCount(), {});
    std::vector<u32> lots(parts_.size());
    std::iota(lots.begin(), lots.end(), 0U);
    for (std::size_t i = lots.size(); i > 1; --i)
        std::swap(lots[i - 1], lots[random.below(static_cast<u32>(i))]);
    for (u32 i = 0; i < parts_.size(); ++i) {
        const i64 start = i64{i} * PARTSIZE;
        Part& part = parts_[i];
        part.start = static_cast<u32>(start);
        part.end = static_cast<u32>(std::min(start + PARTSIZE, size));
        part.lot = lots[i];
        part.isBegun = here.overlaps(part.start, part.end);
        part.isVerified = partial.isVerified(i);
    }
}

void DLProgress::addParts(const BoolArray* parts) {
    if (parts) changeParts(*parts, 1);
}

void DLProgress::removeParts(const BoolArray* parts) {
    if (parts) changeParts(*parts, -1);
}

void DLProgress::changeParts(const BoolArray& parts, i32 delta) {
    for (u32 i = 0; i < parts_.size(); ++i) {
        if (!parts.get(static_cast<i32>(i))) continue;
        change(parts_[i].start, parts_[i].end, delta);
        parts_[i].sources = std::max(0, parts_[i].sources + delta);
    }
}

bool DLProgress::comesBefore(const Part& a, const Part& b) {
    if (a.isAlone != b.isAlone) return a.isAlone;
    if (a.sources != b.sources) return a.sources < b.sources;
    if (a.isBegun != b.isBegun) return a.isBegun;
    return a.lot < b.lot;
}

// A part that failed is being fetched again, or checked.
bool DLProgress::isRepairing() const {
    return std::any_of(parts_.begin(), parts_.end(), [](const Part& part) {
        return part.isAlone && !part.isVerified && part.holder != noAccount;
    });
}

bool DLProgress::mayFetch(const Part& part, const Asker& asker, bool repairing) {
    if (part.isVerified) return false;
    if (part.isAlone && part.holder != noAccount) return part.holder == asker.account;
    if (asker.isProven) return true;
    return !repairing && (!part.isAlone || asker.mayRepair);
}

Chunk DLProgress::pickChunk(const Asker& asker, i64 most) {
    Chunk best;
    Part* from = nullptr;
    const bool repairing = isRepairing();
    for (u32 i = 0; asker.parts && i < parts_.size(); ++i) {
        Part& part = parts_[i];
        if (!asker.parts->get(static_cast<i32>(i)) || !mayFetch(part, asker, repairing)) continue;
        if (from && !comesBefore(part, *from)) continue;
        const Chunk free = firstIn(part, countRequested);
        if (free.isEmpty()) continue;
        best = free;
        from = &part;
    }
    if (!from) return {};
    // A range that was asked for before the part failed could be taken for a repetition of that request.
    const i64 length = most - 1024 * std::min(from->failures, 64);
    best.end = static_cast<u32>(std::min<i64>(best.end, best.start + length));
    addRequested(best.start, best.end);
    from->isBegun = true;
    ++from->requests;
    if (from->isAlone) from->holder = asker.account;
    return best;
}

void DLProgress::giveBack(const Chunk& chunk) {
    if (chunk.isEmpty()) return;
    removeRequested(chunk.start, chunk.end);
    --parts_[chunk.part()].requests;
}

std::vector<u32> DLProgress::heldBy(u32 account) const {
    std::vector<u32> held;
    for (u32 i = 0; i < parts_.size(); ++i) {
        if (parts_[i].isAlone && !parts_[i].isVerified && parts_[i].holder == account) held.push_back(i);
    }
    return held;
}

void DLProgress::handOver(const Chunk& chunk) { ++parts_[chunk.part()].requests; }

void DLProgress::partFailed(u32 number) {
    Part& part = parts_[number];
    removeDone(part.start, part.end);
    part.isAlone = true;
    part.holder = noAccount;
    ++part.failures;
}

bool DLProgress::hasMissing(const BoolArray* parts) const {
    for (u32 i = 0; parts && i < parts_.size(); ++i) {
        if (!parts->get(static_cast<i32>(i)) || parts_[i].isVerified) continue;
        if (!firstIn(parts_[i], countDone).isEmpty()) return true;
    }
    return false;
}

Chunk DLProgress::firstIn(const Part& part, i32 limit) const {
    const Gap found = firstBelow(limit, {part.start, part.end});
    return {static_cast<u32>(found.start), static_cast<u32>(found.end)};
}
