// Which bytes of a file are missing, and how many sources hold which: the two lists, alone and in step.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "download/GapCounterList.h"
#include "download/GapList.h"
#include "i4min/file/file.h"
#include "tests/support/damage.h"

namespace {

std::string drawn(const std::vector<Gap>& gaps) {
    std::string text;
    for (const Gap& gap : gaps) {
        text += "(" + std::to_string(gap.start) + "," + std::to_string(gap.end) + ")";
    }
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
std::string drawn(const std::vector<GapCounter>& runs) {
    std::string text;
    for (const GapCounter& run : runs) {
        text += "(" + std::to_string(run.start) + "," + std::to_string(run.end) + "," +
                std::to_string(run.count) + ")";
    }
    return text;
}
std::string drawn(GapCounterList& list) { return drawn(runsOf(list)); }

// What a list of gaps does, told in the plainest way: walk all gaps in order, and begin again after each that
// is gone.
struct PlainGaps {
    std::vector<Gap> gaps;

    void add(i64 start, i64 end) {
        int merged = -1;
        for (std::size_t i = 0; i < gaps.size();) {
            const Gap c = gaps[i];
            Gap* into = merged >= 0 ? &gaps[static_cast<std::size_t>(merged)] : nullptr;
            if (c.start <= start && c.end >= end) {
                if (into) gaps.erase(gaps.begin() + merged);
                return;
            }
            const bool startMeets = c.start <= start && c.end >= start;
            const bool endMeets = c.end >= end && c.start <= end;
            if (!startMeets && !endMeets && !(c.start >= start && c.end <= end)) {
                ++i;
                continue;
            }
            if (into) {
                if (startMeets) {
                    into->start = c.start;
                } else if (endMeets) {
                    into->end = c.end;
                }
                gaps.erase(gaps.begin() + static_cast<std::ptrdiff_t>(i));
                continue;
            }
            if (startMeets) {
                start = c.start;
            } else if (endMeets) {
                end = c.end;
            }
            gaps[i] = {start, end};
            merged = static_cast<int>(i++);
        }
        if (merged < 0) gaps.push_back({start, end});
    }
    bool removePass(i64 start, i64 end) {
        for (std::size_t i = 0; i < gaps.size(); ++i) {
            Gap& c = gaps[i];
            if (start <= c.start && end > c.start) {
                c.start = end;
                if (c.start >= c.end) {
                    gaps.erase(gaps.begin() + static_cast<std::ptrdiff_t>(i));
                    return true;
                }
            }
            if (start > c.start && start < c.end) {
                const i64 old = c.end;
                c.end = start;
                if (old > end) gaps.push_back({end, old});
                if (old >= end) return false;
            }
        }
        return false;
    }
    void remove(i64 start, i64 end) {
        while (removePass(start, end)) {
        }
    }
    std::string firstOverlap(i64 start, i64 end) const {
        for (const Gap& g : gaps) {
            if ((start >= g.start && start < g.end) || (end > g.start && end <= g.end)) {
                return drawn(std::vector<Gap>{{std::max(start, g.start), std::min(end, g.end)}});
            }
        }
        return "";
    }
    bool overlaps(i64 start, i64 end) const {
        return !firstOverlap(start, end).empty() || std::any_of(gaps.begin(), gaps.end(), [&](const Gap& g) {
            return start <= g.start && end >= g.end;
        });
    }
};

TEST(GapListTest, GapsKeepTheirPlaceAndTailsGoToTheEnd) {
    GapList list;
    list.addGap(0, 1000);
    list.removeGap(0, 10);
    list.addGap(100, 200);
    EXPECT_EQ(drawn(list), "(10,1000)");
    list.removeGap(100, 200);
    list.addGap(150, 250);
    EXPECT_EQ(drawn(list), "(10,100)(150,1000)");
    list.invert(1000);
    list.append({800, 1000});
    EXPECT_EQ(drawn(list), "(0,10)(100,150)(800,1000)");

    GapList source;
    for (const Gap& gap : {Gap{0, 50}, Gap{800, 900}, Gap{100, 150}, Gap{160, 300}}) source.append(gap);
    list.assign(source);
    for (const Gap& gap : {Gap{700, 850}, Gap{80, 155}, Gap{170, 180}, Gap{10, 60}}) {
        list.removeGap(gap.start, gap.end);
    }
    EXPECT_EQ(drawn(list), "(0,10)(850,900)(160,170)(180,300)");
    for (const Gap& gap : {Gap{850, 870}, Gap{160, 170}, Gap{180, 400}}) list.removeGap(gap.start, gap.end);
    list.addGap(100, 300);
    EXPECT_EQ(drawn(list), "(0,10)(870,900)(100,300)");
    list.removeGap(890, 900);
    list.removeGap(70, 300);
    EXPECT_EQ(drawn(list), "(0,10)(870,890)");
    source.copyTo(list);
    EXPECT_EQ(drawn(list), "(0,10)(870,890)(0,50)(800,900)(100,150)(160,300)") << "copied as they are";
    list.assign(list);
    list.clear();
    EXPECT_TRUE(list.isEmpty());
}

TEST(GapListTest, EmptyRangesAndTheEndOfAFile) {
    GapList list;
    list.addGap(5, 5);
    EXPECT_TRUE(list.isEmpty());
    list.addGap(0, 4294967295);
    list.removeGap(10, 10);
    list.removeGap(20, 15);
    list.removeGap(10, 4294967290);
    EXPECT_EQ(drawn(list), "(0,10)(4294967290,4294967295)");
    EXPECT_TRUE(list.overlaps(4294967295, 4294967295)) << "the empty part behind a gap at the file's end";
    EXPECT_FALSE(list.overlaps(10, 4294967290));
    EXPECT_TRUE(list.overlaps(9, 4294967290));
    EXPECT_TRUE(list.overlaps(0, 4294967295));
    Gap out{1, 2};
    EXPECT_FALSE(list.firstOverlap(4294967280, 4294967290, out));
    EXPECT_EQ(out, (Gap{1, 2}));
    EXPECT_TRUE(list.firstOverlap(5, 4294967290, out));
    EXPECT_EQ(out, (Gap{5, 10}));
    list.invert(4294967295);
    EXPECT_EQ(drawn(list), "(10,4294967290)");
    EXPECT_FALSE(list.firstOverlap(0, 4294967295, out)) << "a gap strictly inside is passed over";
    list.invert(0);
    EXPECT_TRUE(list.isEmpty());
}

// Against the plain walk, also for lists whose gaps overlap, touch or are inverted.
TEST(GapListTest, DoesWhatThePlainWalkDoes) {
    for (unsigned seed = 0; seed < 60; ++seed) {
        std::mt19937 random(seed);
        const auto below = [&](int limit) {
            return static_cast<i64>(random() % static_cast<unsigned>(limit));
        };
        GapList list;
        PlainGaps plain;
        const bool tangled = seed % 3 == 0;
        for (int i = 0; i < 6 && seed % 2 == 0; ++i) {
            const Gap gap = tangled ? Gap{below(100), below(100)} : Gap{10 * i + 100, 10 * i + 105};
            list.append(gap);
            plain.gaps.push_back(gap);
        }
        for (int i = 0; i < 400; ++i) {
            const i64 start = below(200);
            i64 end = start + below(i % 10 == 0 ? 90 : 12);
            if (start < end && below(2) == 0) {
                list.addGap(start, end);
                plain.add(start, end);
            } else if (start < end) {
                list.removeGap(start, end);
                plain.remove(start, end);
            } else {
                end = below(200);  // the questions alone take an inverted range
            }
            ASSERT_EQ(drawn(list), drawn(plain.gaps)) << "seed " << seed << ", step " << i;
            ASSERT_EQ(list.overlaps(start, end), plain.overlaps(start, end))
                << "seed " << seed << ", step " << i;
            Gap out;
            const std::string first = list.firstOverlap(start, end, out) ? drawn(std::vector<Gap>{out}) : "";
            ASSERT_EQ(first, plain.firstOverlap(start, end)) << "seed " << seed << ", step " << i;
        }
    }
}

TEST(GapListTest, SavedForm) {
    GapList list;
    list.append({800, 900});
    list.append({0, 0x01020304});
    i4_owned_ram_file file;
    ASSERT_TRUE(list.toFile(file));
    const std::vector<u8> bytes(file.buffer(), file.buffer() + file.tell());
    EXPECT_THAT(bytes, testing::ElementsAre(2, 0, 0x20, 3, 0, 0, 0x84, 3, 0, 0, 0, 0, 0, 0, 4, 3, 2, 1));
    EXPECT_EQ(list.fileSize(), bytes.size());
    const auto read = [](GapList& into, std::span<const u8> from) {
        i4_owned_ram_file stream;
        stream.write(from.data(), static_cast<u32>(from.size()));
        stream.seek(0);
        return into.fromFile(stream);
    };
    GapList copy;
    copy.addGap(1, 2);
    EXPECT_TRUE(read(copy, bytes));
    EXPECT_EQ(drawn(copy), "(800,900)(0,16909060)");
    sweepDamage(bytes, [&](std::span<const u8> damaged) {
        GapList other;
        other.addGap(1, 2);
        if (!read(other, damaged)) {
            EXPECT_EQ(drawn(other), "(1,2)");
        }
        for (const Gap& gap : other.gaps()) EXPECT_LT(gap.start, gap.end);
    });
    for (i64 i = 0; i < 65536; ++i) copy.append({2 * i, 2 * i + 1});
    i4_owned_ram_file refused;
    EXPECT_FALSE(copy.toFile(refused)) << "more than the count can say";
    copy.clear();
    copy.append({0, 4294967296});
    EXPECT_FALSE(copy.toFile(refused));
    EXPECT_EQ(refused.tell(), 0u);
}

TEST(GapCounterListTest, CountsRiseFallAndStick) {
    GapCounterList list;
    list.reset();
    list.setSize(2000);
    list.change(0, 1000, 1);
    list.change(500, 1000, 1);
    EXPECT_EQ(drawn(list), "(0,500,1)(500,1000,2)(1000,2000,0)");
    list.addRequested(0, 20);
    list.addRequested(30, 40);
    EXPECT_EQ(drawn(list), "(0,20,1001)(20,30,1)(30,40,1001)(40,500,1)(500,1000,2)(1000,2000,0)");
    list.removeRequested(30, 40);
    list.removeRequested(0, 0);
    EXPECT_EQ(drawn(list), "(0,20,1001)(20,500,1)(500,1000,2)(1000,2000,0)");
    list.addSource({400, 600});
    list.addSource({0, 1000});
    EXPECT_EQ(drawn(list), "(0,20,1002)(20,400,2)(400,500,3)(500,600,4)(600,1000,3)(1000,2000,0)");
    for (const Gap& gap : {Gap{30, 40}, Gap{300, 450}, Gap{900, 1000}, Gap{35, 50}})
        list.addDone(gap.start, gap.end);
    EXPECT_EQ(drawn(list),
              "(0,20,1002)(20,30,2)(30,50,2000)(50,300,2)(300,450,2000)(450,500,3)(500,600,4)(600,900,3)"
              "(900,1000,2000)(1000,2000,0)");
    list.removeDone(900, 1000);
    list.removeDone(600, 700);
    EXPECT_EQ(drawn(list),
              "(0,20,1002)(20,30,2)(30,50,2000)(50,300,2)(300,450,2000)(450,500,3)(500,600,4)(600,700,0)"
              "(700,900,3)(900,2000,0)");
    for (const Gap& gap : {Gap{500, 600}, Gap{900, 1000}, Gap{0, 50}}) list.removeSource(gap);
    EXPECT_EQ(drawn(list),
              "(0,20,1001)(20,30,1)(30,50,2000)(50,300,2)(300,450,2000)(450,600,3)(600,700,0)(700,900,3)"
              "(900,2000,0)");
    for (const Gap& gap :
         {Gap{0, 10}, Gap{10, 50}, Gap{80, 100}, Gap{500, 600}, Gap{100, 500}, Gap{50, 90}}) {
        list.addDone(gap.start, gap.end);
    }
    EXPECT_EQ(drawn(list), "(0,600,2000)(600,700,0)(700,900,3)(900,2000,0)");
    GapCounterList copy;
    list.copyTo(copy);
    EXPECT_EQ(drawn(copy), "(0,600,2000)(600,700,0)(700,900,3)(900,2000,0)");
    EXPECT_EQ(copy.size(), 0);
    list.removeDone(0, 2000);
    EXPECT_EQ(drawn(list), "(0,2000,0)");
    list.reset();
    EXPECT_EQ(drawn(list), "");
    list.change(100, 200, -1);
    EXPECT_EQ(drawn(list), "");
    list.change(100, 200, 7);
    EXPECT_EQ(drawn(list), "(100,200,7)");
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
        list.change(7, 7, 1);
        list.change(9, 8, 1);
        list.change(4294967295, 4294967299, 1);
        EXPECT_EQ(runsOf(list).size(), count ? 2u : 1u);
    }
}

i32 counted(i32 count, i32 delta) {
    if (count == 2000) return delta == -2000 ? 0 : 2000;
    if (delta == 2000) return 2000;
    if (delta == 1000 && count >= 1000) return count;
    const i32 sum = count + delta;
    return sum < 0 ? 0 : sum == 999 ? 1000 : sum;
}

// Byte for byte against an array of counts, also for runs that came from elsewhere or overlap for a while.
TEST(GapCounterListTest, IsTheSameAsACountForEachByte) {
    const i32 deltas[] = {1, -1, 1, 1000, -1000, 2000, -2000};
    for (unsigned seed = 0; seed < 60; ++seed) {
        std::mt19937 random(seed);
        GapCounterList first;
        first.setSize(300);
        GapCounterList list;
        if (seed % 2) {
            first.change(100, 200, 5);
            first.copyTo(list);  // the size is 0 until now, and a second whole run is behind the first
            list.setSize(300);
        } else {
            list.setSize(300);
        }
        std::vector<i32> counts(300, 0);
        if (seed % 2) std::fill(counts.begin() + 100, counts.begin() + 200, 5);
        for (int i = 0; i < 300; ++i) {
            const std::size_t start = random() % 300;
            const std::size_t end = start + random() % (i % 8 ? 20 : 200);
            const i32 delta = deltas[random() % std::size(deltas)];
            list.change(static_cast<i64>(start), static_cast<i64>(end), delta);
            for (std::size_t at = start; at < std::min<std::size_t>(end, 300); ++at) {
                counts[at] = counted(counts[at], delta);
            }
        }
        std::vector<GapCounter> expected;
        for (std::size_t at = 0; at < counts.size(); ++at) {
            const auto here = static_cast<i64>(at);
            if (!expected.empty() && expected.back().count == counts[at]) {
                expected.back().end = here + 1;
            } else {
                expected.emplace_back(here, here + 1, counts[at]);
            }
        }
        std::vector<GapCounter> runs = runsOf(list);
        if (seed % 2) runs.pop_back();  // the second whole run
        ASSERT_EQ(drawn(runs), drawn(expected)) << "seed " << seed;
    }
}

// A run is here exactly where no gap is.
TEST(GapListsTest, BothStayInStep) {
    for (unsigned seed = 0; seed < 20; ++seed) {
        std::mt19937 random(seed);
        GapCounterList counters;
        counters.setSize(100);
        GapList gaps;
        gaps.addGap(0, 100);
        for (int i = 0; i < 1000; ++i) {
            const i64 start = static_cast<i64>(random() % 100);
            const i64 end = start + 1 + static_cast<i64>(random()) % (100 - start);
            const i32 alone[] = {1, 1000, -1, -1000};
            switch (random() % 6) {
                case 0:
                    counters.addDone(start, end);
                    gaps.removeGap(start, end);
                    break;
                case 1:
                    counters.removeDone(start, end);
                    gaps.addGap(start, end);
                    break;
                default:
                    counters.change(start, end, alone[random() % 4]);
            }
            std::string missing(100, '#');
            std::string notHere(100, '.');
            for (const Gap& gap : gaps.gaps()) {
                missing.replace(static_cast<std::size_t>(gap.start),
                                static_cast<std::size_t>(gap.end - gap.start),
                                static_cast<std::size_t>(gap.end - gap.start), '.');
            }
            i64 covered = 0;
            for (const GapCounter& run : runsOf(counters)) {
                ASSERT_EQ(run.start, covered);
                covered = run.end;
                const auto length = static_cast<std::size_t>(run.end - run.start);
                if (run.count == countDone) {
                    notHere.replace(static_cast<std::size_t>(run.start), length, length, '#');
                }
            }
            ASSERT_EQ(covered, 100);
            ASSERT_EQ(notHere, missing) << "seed " << seed << ", step " << i;
        }
    }
}

}  // namespace
