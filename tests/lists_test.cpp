// LL and LLsafe.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <thread>

#include "i4min/memory/LL.h"
#include "i4min/memory/LLsafe.h"

namespace {

struct Item {
    int key = 0;
    char name = 0;
};

Item items[10] = {{3, 'a'}, {1, 'b'}, {2, 'c'}, {1, 'd'}, {3, 'e'},
                  {2, 'f'}, {1, 'g'}, {2, 'h'}, {3, 'i'}, {1, 'j'}};

Item* item(char name) { return &items[name - 'a']; }

void fill(LL<Item>& list, const std::string& names) {
    list.clear();
    for (const char name : names) list.add(item(name));
}

// The list as text, after a look at its tail: what is added must come last.
std::string drawn(LL<Item>& list) {
    std::string result;
    for (LL<Item>::Cursor c; Item* i = list.next(c);) result += i->name;
    Item last{0, '!'};
    list.add(&last);
    EXPECT_EQ(list.getAt(static_cast<u16>(result.size())), &last) << result;
    EXPECT_EQ(list.removeAt(static_cast<u32>(result.size())), &last) << result;
    EXPECT_EQ(list.count(), result.size());
    return result;
}

template <class List>
class Lists : public ::testing::Test {
  protected:
    List list_;
};
using ListTypes = ::testing::Types<LL<Item>, LLsafe<Item>>;
TYPED_TEST_SUITE(Lists, ListTypes);

TYPED_TEST(Lists, StartEmptyAndIgnoreNull) {
    auto& list = this->list_;
    LL<Item>::Cursor c;
    EXPECT_EQ(list.next(c), nullptr);
    EXPECT_EQ(list.first(), nullptr);
    EXPECT_EQ(list.getAt(0), nullptr);
    EXPECT_EQ(list.removeAt(0), nullptr);
    EXPECT_FALSE(list.remove(item('a')));
    list.add(nullptr);
    list.addFront(nullptr);
    EXPECT_FALSE(list.remove(nullptr));
    EXPECT_FALSE(list.contains(item('a')));
    list.sort([](const Item*, const Item*) { return true; });
    list.shuffle();
    list.removeNext(LL<Item>::Cursor());
    EXPECT_EQ(drawn(list), "");
    EXPECT_TRUE(list.isEmpty());
}

TYPED_TEST(Lists, KeepTheirTail) {
    auto& list = this->list_;
    list.addFront(item('b'));
    EXPECT_EQ(drawn(list), "b");
    list.addFront(item('a'));
    EXPECT_EQ(drawn(list), "ab");
    EXPECT_TRUE(list.remove(item('b')));
    EXPECT_EQ(drawn(list), "a");
    EXPECT_EQ(list.removeAt(0), item('a'));
    EXPECT_EQ(drawn(list), "");
    fill(list, "abc");
    list.clear();
    EXPECT_EQ(drawn(list), "");
    fill(list, "abab");
    EXPECT_TRUE(list.remove(item('b')));
    EXPECT_EQ(drawn(list), "aab") << "only the first one goes";
}

TYPED_TEST(Lists, TakePositions) {
    auto& list = this->list_;
    const struct {
        u32 at;
        const char* inserted;
        const char* replaced;
    } cases[] = {
        {0, "xabc", "xbc"}, {1, "axbc", "axc"}, {2, "abxc", "abx"}, {3, "abcx", "abcx"}, {8, "abcx", "abcx"}};
    Item x{0, 'x'};
    for (const auto& c : cases) {
        fill(list, "abc");
        list.insertAt(c.at, &x);
        EXPECT_EQ(drawn(list), c.inserted) << c.at;
        fill(list, "abc");
        list.replaceAt(c.at, &x);
        EXPECT_EQ(drawn(list), c.replaced) << c.at;
    }
    fill(list, "abc");
    EXPECT_EQ(list.getAt(2), item('c'));
    EXPECT_EQ(list.removeAt(3), nullptr);
    EXPECT_EQ(list.getAt(3), nullptr);
    EXPECT_FALSE(list.addUnique(item('b')));
    EXPECT_TRUE(list.addUnique(item('d')));
    LLsafe<Item> other;
    fill(other, "db");
    list.addAll(other);
    EXPECT_EQ(drawn(list), "abcddb");
    list.removeAll(other);
    EXPECT_EQ(drawn(list), "acdb");
}

TYPED_TEST(Lists, RemoveWhileWalking) {
    // Every set of elements to remove, given as a mask over five.
    auto& list = this->list_;
    for (unsigned mask = 0; mask < 32; ++mask) {
        fill(list, "abcde");
        std::string kept;
        std::string seen;
        LL<Item>::Cursor c;
        for (LL<Item>::Cursor before = c; Item* i = list.next(c); before = c) {
            seen += i->name;
            if (mask >> (i->name - 'a') & 1U) {
                c = list.removeNext(before);
            } else {
                kept += i->name;
            }
        }
        EXPECT_EQ(seen, "abcde") << mask;
        EXPECT_EQ(drawn(list), kept) << mask;
    }
    // Behind the last element there is nothing to remove, and the cursor comes back fresh.
    fill(list, "ab");
    LL<Item>::Cursor c;
    list.next(c);
    list.next(c);
    c = list.removeNext(c);
    EXPECT_EQ(list.next(c), item('a'));
}

// The insertion sort whose order the list promises, told step by step on a plain vector.
template <class Compare>
std::vector<Item*> insertionSorted(const std::vector<Item*>& values, Compare compare) {
    std::vector<Item*> sorted;
    for (Item* value : values) {
        auto at = sorted.begin();
        while (at != sorted.end() && !compare(value, *at)) ++at;
        sorted.insert(at, value);
    }
    return sorted;
}

TYPED_TEST(Lists, SortInTheOrderOfTheInsertionSort) {
    auto& list = this->list_;
    const auto lessOrEqual = [](const Item* a, const Item* b) { return !b || (a && a->key <= b->key); };
    const auto greaterOrEqual = [](const Item* a, const Item* b) { return !b || (a && a->key >= b->key); };
    fill(list, "abc");
    list.sort(lessOrEqual);
    EXPECT_EQ(drawn(list), "bca");
    fill(list, "abcdefghij");
    list.sort(lessOrEqual);
    EXPECT_EQ(drawn(list), "jgdbhfciea") << "of equals, the later one stands first";

    std::mt19937 random(7);
    for (unsigned round = 0; round < 60; ++round) {
        std::vector<Item> pool(random() % 70);
        std::vector<Item*> values;
        for (Item& i : pool) {
            i.key = static_cast<int>(random() % 6);
            values.push_back(&i);
        }
        for (const auto compare : {+lessOrEqual, +greaterOrEqual}) {
            list.clear();
            for (Item* value : values) list.add(value);
            list.sort(compare);
            std::vector<Item*> got;
            for (LL<Item>::Cursor c; Item* i = list.next(c);) got.push_back(i);
            EXPECT_EQ(got, insertionSorted(values, compare)) << round;
        }
        drawn(list);
    }
}

TYPED_TEST(Lists, SortAnythingWithoutLosingAnElement) {
    // Keys that other threads change meanwhile make a comparison that contradicts itself.
    static std::mt19937 random(11);
    std::vector<Item> pool(500);
    for (Item& i : pool) this->list_.add(&i);
    for (int round = 0; round < 20; ++round) {
        this->list_.sort([](const Item*, const Item*) { return random() % 2 == 0; });
        std::vector<const Item*> got;
        for (LL<Item>::Cursor c; Item* i = this->list_.next(c);) got.push_back(i);
        std::sort(got.begin(), got.end());
        ASSERT_EQ(got.size(), pool.size());
        for (std::size_t i = 0; i < pool.size(); ++i) ASSERT_EQ(got[i], &pool[i]);
    }
}

TYPED_TEST(Lists, ShuffleKeepsEveryElementOnce) {
    auto& list = this->list_;
    std::srand(5);
    bool first[10] = {};
    for (int round = 0; round < 400; ++round) {
        fill(list, "abcdefghij");
        list.shuffle();
        std::string names = drawn(list);
        first[names[0] - 'a'] = true;
        std::sort(names.begin(), names.end());
        ASSERT_EQ(names, "abcdefghij");
    }
    EXPECT_EQ(std::count(first, first + 10, true), 10) << "any element may come first";
}

TEST(LLsafe, ServesThreads) {
    LLsafe<Item> list;
    std::vector<Item> pool(4 * 200);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < 4; ++t) {
        threads.emplace_back([&list, mine = pool.data() + t * 200] {
            for (int i = 0; i < 200; ++i) {
                i % 3 ? list.add(mine + i) : list.addFront(mine + i);
                list.first();
                list.getAt(3);
                if (i % 2) list.remove(mine + i);
                if (i % 50 == 0) {
                    i4_guard guard(list);
                    u32 n = 0;
                    for (LL<Item>::Cursor c; list.next(c);) ++n;
                    EXPECT_EQ(n, list.countUnsafe());
                    list.addUnsafe(mine + i);
                    EXPECT_TRUE(list.removeUnsafe(mine + i));
                }
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(list.count(), 4U * 100U);
}

}  // namespace
