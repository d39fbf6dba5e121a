#include "download/DLProgress.h"

#include <algorithm>

#include "download/PartialFile.h"
#include "i4min/memory/Random.h"

namespace {

bool rarerFirst(const GapCounter* a, const GapCounter* b) { return a->count <= b->count; }

}  // namespace

void DLProgress::setup(PartialFile& partial, Random& random) {
    deleteAll(partList_);
    GapList here;
    here.assign(partial);
    here.invert(partial.fileSize());
    setSize(partial.fileSize());
    for (const Gap& range : here.gaps()) addDone(range.start, range.end);
    for (i64 part = 0; part < partial.getPartCount(); ++part) {
        const i64 start = part * PARTSIZE;
        // One that isn't verified yet may become missing again.
        if (partial.overlaps(start, start + PARTSIZE) || !partial.isVerified(static_cast<u32>(part)))
            partList_.own(std::make_unique<GapCounter>(GapCounter{start, start + PARTSIZE, 0}));
    }
    partList_.shuffle(random);
}

void DLProgress::addParts(const BoolArray* parts) {
    if (parts) changeParts(*parts, 1);
}

void DLProgress::removeParts(const BoolArray* parts) {
    if (parts) changeParts(*parts, -1);
}

void DLProgress::changeParts(const BoolArray& parts, i32 delta) {
    for (i64 part = 0; part < parts.size(); ++part) {
        if (parts.get(static_cast<i32>(part))) change(part * PARTSIZE, (part + 1) * PARTSIZE, delta);
    }
    bool changed = false;
    for (LL<GapCounter>::Cursor c; GapCounter* part = partList_.next(c);) {
        if (!parts.get(static_cast<i32>(part->start / PARTSIZE))) continue;
        part->count = std::max(0, part->count + delta);
        changed = true;
    }
    if (changed) partList_.sort(rarerFirst);
}

bool DLProgress::pickChunk(const BoolArray* parts, i64 most, u32& start, u32& end) {
    if (!parts) return false;
    for (LL<GapCounter>::Cursor c; const GapCounter* part = partList_.next(c);) {
        if (!parts->get(static_cast<i32>(part->start / PARTSIZE))) continue;
        if (findFree(part->start, part->end, most, start, end)) {
            addRequested(start, end);
            return true;
        }
    }
    return false;
}

bool DLProgress::findFree(i64 partStart, i64 partEnd, i64 most, u32& start, u32& end) {
    Gap free;
    if (!firstFree({partStart, partEnd}, free)) return false;
    start = static_cast<u32>(free.start);
    end = static_cast<u32>(std::min(free.end, free.start + most));
    return true;
}
