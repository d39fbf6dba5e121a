#include "download/GapCounterList.h"

#include <algorithm>

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

}  // namespace

void GapCounterList::setSize(i64 size) {
    const i4_lock guard(lock_);
    counts_.reset(size);
}

u32 GapCounterList::count() const {
    const i4_lock guard(lock_);
    return static_cast<u32>(counts_.count());
}

void GapCounterList::change(i64 start, i64 end, i32 delta) {
    const i4_lock guard(lock_);
    counts_.change(start, end, [&](i32& count) { adjust(count, delta); });
}

Gap GapCounterList::firstBelow(i32 limit, const Gap& range) const {
    const i4_lock guard(lock_);
    for (const auto& run : counts_.runs(range.start, range.end)) {
        if (run.value < limit) return {std::max(range.start, run.start), std::min(range.end, run.end)};
    }
    return {};
}
