// Which bytes of a file are missing, and how many sources hold which: the two lists, and the map of runs
// below them.
#include <gmock/gmock.h>

#include <algorithm>
#include <map>
#include <random>
#include <set>

#include "download/GapCounterList.h"
#include "download/GapList.h"
#include "tests/support/bytes.h"

namespace {

using testing::ElementsAre;

constexpr i64 size = 60;
using Values = i64[size];  // one for each byte

std::string drawn(i64 start, i64 end, i64 value) {
    return std::to_string(start) + "-" + std::to_string(end) + ":" + std::to_string(value) + " ";
}

// The runs of equal values that meet a range.
std::string runsOf(const Values& values, i64 start, i64 end) {
    std::string text;
    for (i64 from = 0, to = 0; from < size; from = to) {
        while (to < size && values[to] == values[from]) ++to;
        if (start < end && from < end && start < to) text += drawn(from, to, values[from]);
    }
    return text;
}

// The rules: what is done stays so until it is taken back; being fetched counts once; no count is below none.
i64 counted(i64 count, i32 delta) {
    if (count == 2000) return delta == -2000 ? 0 : 2000;
    if (delta == 2000) return 2000;
    if (delta == 1000 && count >= 1000) return count;
    const i64 sum = count + delta;
    return sum < 0 ? 0 : sum == 999 ? 1000 : sum;
}

TEST(GapCounterListTest, CountsForEachByte) {
    const i32 deltas[] = {1, -1, 1, 1000, -1000, 2000, -2000};
    std::mt19937 random(7);
    const auto below = [&](i64 number) { return static_cast<i64>(random()) % number; };
    GapCounterList list;
    list.setSize(size);
    RangeMap<i64> map(size);
    Values counts = {};
    for (int i = 0; i < 5000 && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        const i64 start = below(size + 6) - 3;
        const i64 end = start + below(i % 8 ? 9 : size);
        const i32 delta = deltas[below(std::size(deltas))];
        const auto change = [&](i64& count) { count = counted(count, delta); };
        list.change(start, end, delta);
        map.change(start, end, change);
        std::for_each(counts + std::clamp<i64>(start, 0, size), counts + std::clamp<i64>(end, 0, size),
                      change);
        map.checkInvariants();
        std::string runs;
        list.forEach([&](const GapCounter& run) { runs += drawn(run.start, run.end, run.count); });
        EXPECT_EQ(runs, runsOf(counts, 0, size));
        std::string met;
        for (const auto& run : map.runs(start, end)) met += drawn(run.start, run.end, run.value);
        EXPECT_EQ(met, runsOf(counts, start, end));
    }
}

// The numbers of the gaps, in the order in which they came; 0 stands for what is here. The first and the last
// byte are in no gap.
void addGap(Values& orders, i64 start, i64 end, i64 next) {
    std::set<i64> joined(orders + start - 1, orders + end + 1);
    joined.erase(0);
    const i64 order = joined.empty() ? next : *joined.begin();
    std::fill(orders + start, orders + end, order);
    for (i64& old : orders) old = joined.contains(old) ? order : old;
}

void removeGap(Values& orders, i64 start, i64 end, i64 next) {
    const i64 tail = orders[end];
    if (tail != 0 && tail == orders[start - 1]) std::replace(orders + end, orders + size, tail, next);
    std::fill(orders + start, orders + end, 0);
}

TEST(GapListTest, KeepsTheOrderInWhichGapsCame) {
    std::mt19937 random(7);
    const auto below = [&](i64 number) { return static_cast<i64>(random()) % number; };
    GapList list;
    Values orders = {};
    for (int i = 1; i < 5000 && !HasFailure(); ++i) {
        SCOPED_TRACE(i);
        const i64 start = 1 + below(size - 1);
        const i64 end = std::min(start + below(i % 8 ? 9 : size), size - 1);
        const i64 around = start == end ? 1 : 0;  // an empty range overlaps what touches it
        const auto missing = [](i64 order) { return order != 0; };
        EXPECT_EQ(list.overlaps(start, end),
                  std::any_of(orders + start - around, orders + end + around, missing));
        EXPECT_EQ(list.isWithin(start, end), orders[end] != 0 && orders[start - 1] == orders[end]);
        const bool adds = below(2) == 0;
        adds ? list.addGap(start, end) : list.removeGap(start, end);
        if (start < end) (adds ? addGap : removeGap)(orders, start, end, i);
        std::map<i64, Gap> gaps;
        for (i64 at = 0; at < size; ++at)
            gaps.try_emplace(orders[at], Gap{at, at}).first->second.end = at + 1;
        gaps.erase(0);
        std::vector<Gap> expected;
        for (const auto& [order, gap] : gaps) expected.push_back(gap);
        EXPECT_EQ(list.gaps(), expected);
        list.checkInvariants();
    }
}

TEST(GapListTest, CopiesInvertsAndSaves) {
    constexpr i64 largest = 4294967295;
    GapList source;
    for (const Gap& gap : {Gap{800, 900}, Gap{0, 50}, Gap{100, largest}}) source.addGap(gap.start, gap.end);
    GapList list;
    list.addGap(60, 70);
    list.assign(source);
    EXPECT_THAT(list.gaps(), ElementsAre(Gap{100, largest}, Gap{0, 50}));
    list.invert(largest);
    EXPECT_THAT(list.gaps(), ElementsAre(Gap{50, 100}));

    list.assign(GapList());
    list.addGap(0, 0x01020304);
    const Bytes bytes = written([&](i4_file& file) { EXPECT_TRUE(list.toFile(file)); });
    EXPECT_THAT(bytes, ElementsAre(1, 0, 0, 0, 0, 0, 4, 3, 2, 1));
    i4_owned_ram_file refused;
    list.addGap(largest, largest + 1);
    EXPECT_FALSE(list.toFile(refused)) << "too high";
    list.removeGap(0, largest + 1);
    for (i64 at = 0; at < 65'536; ++at) list.addGap(2 * at, 2 * at + 1);
    EXPECT_FALSE(list.toFile(refused)) << "too many";
    EXPECT_EQ(refused.tell(), 0U);
}

}  // namespace
