// Which bytes of a file are missing, and how many sources hold which: the two lists, alone and in step.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "download/GapCounterList.h"
#include "download/GapList.h"
#include "tests/support/bytes.h"

namespace {

std::string drawn(const std::vector<Gap>& gaps) {
    std::string text;
    for (const auto& [start, end] : gaps) text += std::to_string(start) + "-" + std::to_string(end) + " ";
    return text;
}
std::string drawn(const GapList& list) {
    list.checkInvariants();
    return drawn(list.gaps());
}

std::vector<GapCounter> runsOf(GapCounterList& list) {
    list.checkInvariants();
    std::vector<GapCounter> runs;
    const i4_guard guard(list);
    for (GapCounterList::Cursor c; const GapCounter* run = list.next(c);) runs.push_back(*run);
    return runs;
}

TEST(GapListTest, GapsKeepTheirPlaceAndTailsGoToTheEnd) {
    GapList source;
    for (const Gap& gap : {Gap{0, 50}, Gap{800, 900}, Gap{100, 150}, Gap{160, 300}}) source.append(gap);
    GapList list;
    list.assign(source);
    for (const Gap& gap : {Gap{700, 850}, Gap{80, 155}, Gap{170, 180}, Gap{10, 60}})
        list.removeGap(gap.start, gap.end);
    EXPECT_EQ(drawn(list), "0-10 850-900 160-170 180-300 ");
    for (const Gap& gap : {Gap{850, 870}, Gap{160, 170}, Gap{180, 400}}) list.removeGap(gap.start, gap.end);
    list.addGap(100, 300);
    EXPECT_EQ(drawn(list), "0-10 870-900 100-300 ");
    list.addGap(5, 880);
    EXPECT_EQ(drawn(list), "0-900 ") << "the first that it meets takes the others in";
    source.copyTo(list);
    EXPECT_EQ(drawn(list), "0-900 0-50 800-900 100-150 160-300 ") << "copied as they are";
    list.assign(list);
    EXPECT_EQ(list.count(), 5U);
    list.clear();
    EXPECT_TRUE(list.isEmpty());
}

TEST(GapListTest, EmptyRangesAndTheEndOfAFile) {
    constexpr i64 size = 4294967295;
    GapList list;
    list.addGap(5, 5);
    EXPECT_TRUE(list.isEmpty());
    list.addGap(0, size);
    EXPECT_TRUE(list.isWithin(1, size - 1));
    EXPECT_FALSE(list.isWithin(0, 1) || list.isWithin(1, size));
    list.removeGap(10, 10);
    list.removeGap(20, 15);
    list.removeGap(10, size - 5);
    EXPECT_EQ(drawn(list), "0-10 4294967290-4294967295 ");
    EXPECT_TRUE(list.overlaps(size, size)) << "the empty part behind a gap at the file's end";
    Gap out{1, 2};
    EXPECT_FALSE(list.firstOverlap(size - 15, size - 5, out));
    EXPECT_EQ(out, (Gap{1, 2}));
    EXPECT_TRUE(list.firstOverlap(5, size - 5, out));
    EXPECT_EQ(out, (Gap{5, 10}));
    list.invert(size);
    EXPECT_EQ(drawn(list), "10-4294967290 ");
    EXPECT_FALSE(list.firstOverlap(0, size, out)) << "a gap strictly inside is passed over";
    list.invert(0);
    EXPECT_TRUE(list.isEmpty());
}

TEST(GapListTest, SavedForm) {
    const auto read = [](GapList& into, std::span<const u8> from) {
        BytesFile stream(from);
        return into.fromFile(stream);
    };
    GapList list;
    list.append({800, 900});
    list.append({0, 0x01020304});
    const Bytes bytes = written([&](i4_file& file) { EXPECT_TRUE(list.toFile(file)); });
    EXPECT_THAT(bytes, testing::ElementsAre(2, 0, 0x20, 3, 0, 0, 0x84, 3, 0, 0, 0, 0, 0, 0, 4, 3, 2, 1));
    EXPECT_EQ(list.fileSize(), bytes.size());
    GapList kept;
    kept.addGap(1, 2);
    EXPECT_FALSE(read(kept, std::span(bytes).first(17)));
    EXPECT_EQ(drawn(kept), "1-2 ");
    ASSERT_TRUE(read(list, bytes));
    EXPECT_EQ(drawn(list), "800-900 0-16909060 ");
    i4_owned_ram_file refused;
    for (i64 i = 0; i < 65536; ++i) list.append({1, 2});
    EXPECT_FALSE(list.toFile(refused)) << "more than the count can say";
    list.clear();
    list.append({0, 4294967296});
    EXPECT_FALSE(list.toFile(refused));
    EXPECT_EQ(refused.tell(), 0U);
}

TEST(GapCounterListTest, LimitsOfACount) {
    const struct {
        std::vector<i32> deltas;
        i32 count;
    } cases[] = {
        {{-1}, 0},
        {{1000, -1}, 1000},    // its last source goes, and it is being fetched still
        {{1000, 1000}, 1000},  // asked for once
        {{1000, 1, -1000}, 1},
        {{2000, -1000, 1000, 1, -1, 2000}, 2000},
        {{1000, 2000, -2000}, 0},
        {{-2000}, 0},
        {{998, 1}, 1000},  // the price of the first rule
    };
    for (const auto& [deltas, count] : cases) {
        GapCounterList list;
        list.setSize(4294967295);
        for (const i32 delta : deltas) list.change(1, 4294967300, delta);
        EXPECT_EQ(runsOf(list).back().count, count) << testing::PrintToString(deltas);
        for (const auto& [start, end] : {Gap{7, 7}, Gap{9, 8}, Gap{4294967295, 4294967299}})
            list.change(start, end, 1);
        EXPECT_EQ(runsOf(list).size(), count ? 2U : 1U);
    }
}

i32 counted(i32 count, i32 delta) {
    if (count == 2000) return delta == -2000 ? 0 : 2000;
    if (delta == 2000) return 2000;
    if (delta == 1000 && count >= 1000) return count;
    const i32 sum = count + delta;
    return sum < 0 ? 0 : sum == 999 ? 1000 : sum;
}

constexpr std::size_t size = 300;

// What a list says of each byte.
std::vector<i32> eachByte(const std::vector<GapCounter>& runs) {
    std::vector<i32> bytes;
    for (const GapCounter& run : runs) {
        EXPECT_EQ(run.start, static_cast<i64>(bytes.size()));
        EXPECT_TRUE(bytes.empty() || bytes.back() != run.count) << "joined";
        bytes.resize(static_cast<std::size_t>(run.end), run.count);
    }
    return bytes;
}
std::vector<bool> eachByte(const GapList& list) {
    list.checkInvariants();
    std::vector<bool> missing(size);
    for (const Gap& gap : list.gaps())
        std::fill(missing.begin() + gap.start, missing.begin() + gap.end, true);
    return missing;
}

// Against a count for each byte, also for runs that have come from elsewhere. Both stay in step: a byte is
// here exactly where none is missing.
TEST(GapListsTest, AgreeWithACountForEachByte) {
    const i32 deltas[] = {1, -1, 1, 1000, -1000, 2000, -2000};
    for (unsigned seed = 0; seed < 60; ++seed) {
        std::mt19937 random(seed);
        GapList gaps;
        gaps.append({0, size});
        GapCounterList list;
        std::vector<i32> counts(size);
        if (seed % 2 == 0) {
            GapCounterList first;
            first.setSize(size);
            first.change(100, 200, 5);
            first.copyTo(list);
            std::fill(counts.begin() + 100, counts.begin() + 200, 5);
        }
        list.setSize(size);  // one run more, behind those that were copied
        for (int i = 0; i < 300; ++i) {
            SCOPED_TRACE("seed " + std::to_string(seed) + ", step " + std::to_string(i));
            const auto start = static_cast<i64>(random() % size);
            const auto end = start + static_cast<i64>(random() % (i % 8 ? 20 : 200));
            const auto last = std::min<i64>(end, size);
            const i32 delta = deltas[random() % std::size(deltas)];
            list.change(start, end, delta);
            if (delta == countDone) gaps.removeGap(start, last);
            if (delta == -countDone) gaps.addGap(start, last);
            for (i64 at = start; at < last; ++at) {
                i32& count = counts[static_cast<std::size_t>(at)];
                count = counted(count, delta);
            }
            const std::vector<bool> missing = eachByte(gaps);
            for (std::size_t at = 0; at < size; ++at) ASSERT_EQ(missing[at], counts[at] != countDone) << at;
            const bool any =
                std::find(missing.begin() + start, missing.begin() + last, true) != missing.begin() + last;
            if (start < last) {
                ASSERT_EQ(gaps.overlaps(start, last), any);
            }
        }
        std::vector<GapCounter> runs = runsOf(list);
        if (seed % 2 == 0) runs.pop_back();
        EXPECT_EQ(eachByte(runs), counts);
    }
}

}  // namespace
