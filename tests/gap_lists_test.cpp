// The two lists: which bytes of a file are missing, and how many sources have which. Each alone and both
// together.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "download/GapCounterList.h"
#include "download/GapList.h"
#include "tests/support/bytes.h"

namespace {

std::string drawn(const GapList& list) {
    list.checkInvariants();
    std::string text;
    for (const auto& [start, end] : list.gaps())
        text += std::to_string(start) + "-" + std::to_string(end) + " ";
    return text;
}

TEST(GapListTest, GapsKeepTheirPlaceAndTailsGoToTheEnd) {
    GapList source;
    for (const Gap& gap : {Gap{0, 50}, Gap{800, 900}, Gap{100, 150}, Gap{160, 300}}) source.append(gap);
    GapList list;
    list.assign(source);
    for (const Gap& gap : {Gap{700, 850}, Gap{80, 155}, Gap{170, 180}, Gap{10, 60}, Gap{20, 15}})
        list.removeGap(gap.start, gap.end);
    EXPECT_EQ(drawn(list), "0-10 850-900 160-170 180-300 ");
    list.addGap(5, 880);
    EXPECT_EQ(drawn(list), "0-900 ") << "the first that it meets takes the others in";
    source.copyTo(list);
    EXPECT_EQ(drawn(list), "0-900 0-50 800-900 100-150 160-300 ") << "copied as they are";
}

TEST(GapListTest, TheEndOfAFile) {
    constexpr i64 size = 4294967295;
    GapList list;
    list.addGap(0, size);
    EXPECT_TRUE(list.isWithin(1, size - 1));
    EXPECT_FALSE(list.isWithin(0, 1) || list.isWithin(1, size));
    list.removeGap(10, size - 5);
    EXPECT_TRUE(list.overlaps(size, size)) << "the empty part behind a gap at the file's end";
    Gap out{1, 2};
    EXPECT_FALSE(list.firstOverlap(size - 15, size - 5, out));
    EXPECT_TRUE(list.firstOverlap(5, size - 5, out));
    EXPECT_EQ(out, (Gap{5, 10}));
    list.invert(size);
    EXPECT_EQ(drawn(list), "10-4294967290 ");
    EXPECT_FALSE(list.firstOverlap(0, size, out)) << "a gap strictly inside is passed over";
}

TEST(GapListTest, SavedForm) {
    GapList list;
    list.append({0, 0x01020304});
    const Bytes bytes = written([&](i4_file& file) { EXPECT_TRUE(list.toFile(file)); });
    EXPECT_THAT(bytes, testing::ElementsAre(1, 0, 0, 0, 0, 0, 4, 3, 2, 1));
    list.append({0, 4294967296});
    i4_owned_ram_file refused;
    EXPECT_FALSE(list.toFile(refused));
    list.clear();
    for (int i = 0; i < 65536; ++i) list.append({1, 2});
    EXPECT_FALSE(list.toFile(refused));
    EXPECT_EQ(refused.tell(), 0U);
}

// The rules: done stays until it is undone; a second request doesn't count; no count falls below 0.
i32 counted(i32 count, i32 delta) {
    if (count == 2000) return delta == -2000 ? 0 : 2000;
    if (delta == 2000) return 2000;
    if (delta == 1000 && count >= 1000) return count;
    const i32 sum = count + delta;
    return sum < 0 ? 0 : sum == 999 ? 1000 : sum;
}

constexpr std::size_t size = 300;

// The list's value for each byte.
std::vector<i32> eachByte(GapCounterList& list) {
    list.checkInvariants();
    std::vector<i32> bytes;
    const i4_guard guard(list);
    for (GapCounterList::Cursor c; const GapCounter* run = list.next(c);) {
        if (bytes.size() == size) break;
        EXPECT_EQ(run->start, static_cast<i64>(bytes.size()));
        EXPECT_TRUE(bytes.empty() || bytes.back() != run->count) << "joined";
        bytes.resize(static_cast<std::size_t>(run->end), run->count);
    }
    return bytes;
}

// Compares both lists with a count for each byte: a byte is present exactly if no gap contains it.
TEST(GapListsTest, AgreeWithACountForEachByte) {
    const i32 deltas[] = {1, -1, 1, 1000, -1000, 2000, -2000};
    for (unsigned seed = 0; seed < 40; ++seed) {
        std::mt19937 random(seed);
        GapList gaps;
        gaps.append({0, size});
        GapCounterList list;
        std::vector<i32> counts(size);
        if (seed % 2 == 0) {  // ranges of another list, and one more after them
            GapCounterList first;
            first.setSize(size);
            first.copyTo(list);
        }
        list.setSize(size);
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
            gaps.checkInvariants();
            for (std::size_t at = 0; at < size; ++at) {
                const auto from = static_cast<i64>(at);
                ASSERT_EQ(gaps.overlaps(from, from + 1), counts[at] != countDone) << at;
            }
            const bool any = std::any_of(counts.begin() + start, counts.begin() + last,
                                         [](i32 count) { return count != countDone; });
            ASSERT_TRUE(start == last || gaps.overlaps(start, last) == any);
        }
        EXPECT_EQ(eachByte(list), counts);
    }
}

}  // namespace
