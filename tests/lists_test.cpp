// LL, LLsafe and the hash tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "console/KeptList.h"
#include "i4min/memory/HT32.h"
#include "i4min/memory/LL.h"
#include "i4min/memory/LLsafe.h"
#include "meta/HTMD4.h"
#include "tests/support/systemDisk.h"

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
class Lists : public testing::Test {
  protected:
    List list_;
};
using ListTypes = testing::Types<LL<Item>, LLsafe<Item>>;
TYPED_TEST_SUITE(Lists, ListTypes);

TYPED_TEST(Lists, TakePositionsIgnoreNullAndKeepTheirTail) {
    auto& list = this->list_;
    EXPECT_EQ(list.first(), nullptr);
    EXPECT_EQ(list.removeAt(0), nullptr);
    list.add(nullptr);
    list.addFront(nullptr);
    list.removeNext(LL<Item>::Cursor());
    list.sort([](const Item*, const Item*) { return true; });
    list.shuffle(systemRandom());
    EXPECT_EQ(drawn(list), "");
    list.addFront(item('b'));
    list.addFront(item('a'));
    EXPECT_TRUE(list.remove(item('b')));
    EXPECT_FALSE(list.remove(item('b')));
    EXPECT_EQ(drawn(list), "a");
    EXPECT_EQ(list.removeAt(0), item('a'));
    EXPECT_EQ(drawn(list), "");
    fill(list, "abab");
    EXPECT_TRUE(list.remove(item('b')));
    EXPECT_EQ(drawn(list), "aab") << "only the first one goes";

    const std::pair<const char*, const char*> cases[] = {
        {"xabc", "xbc"}, {"axbc", "axc"}, {"abxc", "abx"}, {"abcx", "abcx"}, {"abcx", "abcx"}};
    Item x{0, 'x'};
    for (u32 at = 0; at < 5; ++at) {
        fill(list, "abc");
        list.insertAt(at, &x);
        EXPECT_EQ(drawn(list), cases[at].first) << at;
        fill(list, "abc");
        list.replaceAt(at, &x);
        EXPECT_EQ(drawn(list), cases[at].second) << at;
    }
    fill(list, "abc");
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
}

TYPED_TEST(Lists, SortOfEqualsTheLaterOneFirstAndLoseNothing) {
    auto& list = this->list_;
    fill(list, "abcdefghij");
    list.sort([](const Item* a, const Item* b) { return a->key <= b->key; });
    EXPECT_EQ(drawn(list), "jgdbhfciea");
    fill(list, "abcdefghij");
    list.sort([](const Item* a, const Item* b) { return a->key >= b->key; });
    EXPECT_EQ(drawn(list), "ieahfcjgdb");

    // Keys that other threads change meanwhile make a comparison that contradicts itself.
    static std::mt19937 random(11);
    for (int round = 0; round < 200; ++round) {
        list.sort([](const Item*, const Item*) { return random() % 2 == 0; });
        std::string names = drawn(list);
        std::sort(names.begin(), names.end());
        ASSERT_EQ(names, "abcdefghij");
    }
}

TYPED_TEST(Lists, ShuffleLetsAnyElementComeFirst) {
    auto& list = this->list_;
    std::srand(5);
    std::set<char> first;
    fill(list, "abcdefghij");
    for (int round = 0; round < 400; ++round) {
        list.shuffle(systemRandom());
        first.insert(drawn(list)[0]);
    }
    EXPECT_EQ(first.size(), 10U);
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
                if (i % 50 != 0) continue;
                i4_guard guard(list);
                u32 n = 0;
                for (LL<Item>::Cursor c; list.next(c);) ++n;
                EXPECT_EQ(n, list.countUnsafe());
            }
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(list.count(), 4U * 100U);
}

TEST(KeptList, HoldsEachOnceHoweverManyThereAre) {
    // A walk of the list for each would outlast the time that a test has.
    constexpr std::size_t many = 500'000;
    struct Counted {
        int references = 0;
        void addRef() { ++references; }
        void release() { --references; }
    };
    std::vector<Counted> pool(many);
    const auto countHeld = [&] {
        return std::count_if(pool.begin(), pool.end(),
                             [](const Counted& one) { return one.references == 1; });
    };
    {
        KeptList<Counted> list;
        for (int twice = 0; twice < 2; ++twice) {
            for (Counted& one : pool) list.keep(&one);
        }
        EXPECT_EQ(list.count(), many);
        EXPECT_EQ(list.getAt(3), &pool[3]);
        EXPECT_EQ(countHeld(), std::ptrdiff_t{many});
        for (int twice = 0; twice < 2; ++twice) list.drop(&pool[1]);
        EXPECT_EQ(list.count(), many - 1);
        EXPECT_EQ(countHeld(), std::ptrdiff_t{many} - 1);
        list.keep(&pool[1]);
        EXPECT_EQ(list.count(), many);
    }
    EXPECT_EQ(countHeld(), 0);
}

// Two keys that share a bucket, one that doesn't, and the life of a key.
template <class Table, class Key>
void tryTable(const Key& key, const Key& sameBucket, const Key& other) {
    Table table;
    table.setSize(17);
    int values[] = {2, 3, 4, 5};
    table.put(key, nullptr);
    table.put(key, &values[0]);
    table.put(key, &values[1]);
    table.put(sameBucket, &values[2]);
    table.put(other, &values[3]);
    EXPECT_EQ(table.get(key)->getAt(0), &values[0]);
    EXPECT_EQ(table.get(key)->getAt(1), &values[1]);
    table.removeValue(key, &values[0]);
    EXPECT_EQ(table.get(key)->getAt(0), &values[1]);
    table.removeValue(key, &values[1]);
    table.removeValue(key, &values[1]);
    EXPECT_EQ(table.get(key), nullptr);
    EXPECT_EQ(table.get(sameBucket)->getAt(0), &values[2]);
    EXPECT_EQ(table.get(other)->getAt(0), &values[3]);
    const auto* old = table.get(other);
    table.removeKey(sameBucket);
    EXPECT_EQ(table.get(sameBucket), nullptr);
    table.setSize(0);
    EXPECT_EQ(table.get(other), nullptr);
    EXPECT_EQ(old->getAt(0), &values[3]) << "what was given out stays";
}

TEST(HashTables, KeepKeysApartAndMakeTheFactorysLists) {
    tryTable<HT32<int>, u32>(40, 57, 41);
    MD4Hash key;
    key.bytes[3] = 1;
    MD4Hash sameBucket = key;
    sameBucket.bytes[15] = 9;
    MD4Hash other = key;
    other.bytes[0] = 1;
    EXPECT_EQ(numberOfHash(other), 0x01000001U);
    tryTable<HTMD4<int>, MD4Hash>(key, sameBucket, other);

    struct Special : HT32_InnerList<int> {
        std::unique_ptr<HT32_InnerList<int>> newInner() const override { return std::make_unique<Special>(); }
    };
    HT32<int> table(std::make_unique<Special>());
    int value = 1;
    table.put(5, &value);
    EXPECT_NE(dynamic_cast<Special*>(table.get(5)), nullptr);
}

}  // namespace
