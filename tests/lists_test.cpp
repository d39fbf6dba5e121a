// LL, LLsafe and the hash tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "console/KeptList.h"
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

// The list as text. Also checks the tail: an added element must be last.
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

TEST(Lists, TakePositionsIgnoreNullAndKeepTheirTail) {
    LLsafe<Item> list;
    list.add(nullptr);
    list.addFront(nullptr);
    list.removeNext(LL<Item>::Cursor());
    list.sort([](const Item*, const Item*) { return true; });
    EXPECT_EQ(drawn(list), "");
    list.addFront(item('b'));
    list.addFront(item('a'));
    EXPECT_TRUE(list.remove(item('b')));
    EXPECT_FALSE(list.remove(item('b')));
    EXPECT_EQ(drawn(list), "a");
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

    // With and without a lock.
    LL<Item> other, plain;
    fill(other, "db");
    plain.addAll(list);
    for (LL<Item>* both : {&plain, static_cast<LL<Item>*>(&list)}) {
        both->addAll(other);
        EXPECT_EQ(drawn(*both), "abcddb");
        both->removeAll(other);
        EXPECT_EQ(drawn(*both), "acdb");
    }
}

TEST(Lists, RemoveWhileWalking) {
    // Removes every subset of five elements, given as a mask.
    LL<Item> list;
    for (unsigned mask = 0; mask < 32; ++mask) {
        fill(list, "abcde");
        std::string kept;
        LL<Item>::Cursor c;
        for (LL<Item>::Cursor before = c; Item* i = list.next(c); before = c) {
            if (mask >> (i->name - 'a') & 1U) {
                c = list.removeNext(before);
            } else {
                kept += i->name;
            }
        }
        EXPECT_EQ(drawn(list), kept) << mask;
    }
}

TEST(Lists, SortOfEqualsTheLaterOneFirstAndShuffleLosingNothing) {
    LLsafe<Item> list;
    fill(list, "abcdefghij");
    list.sort([](const Item* a, const Item* b) { return a->key <= b->key; });
    EXPECT_EQ(drawn(list), "jgdbhfciea");

    // Keys that other threads change during a sort make comparisons contradictory.
    static std::mt19937 random(11);
    std::set<char> first;
    for (int round = 0; round < 400; ++round) {
        const bool sorts = round % 2 == 0;
        sorts ? list.sort([](const Item*, const Item*) { return random() % 2 == 0; })
              : list.shuffle(systemRandom());
        std::string names = drawn(list);
        if (!sorts) first.insert(names[0]);
        std::sort(names.begin(), names.end());
        ASSERT_EQ(names, "abcdefghij");
    }
    EXPECT_EQ(first.size(), 10U) << "any element may come first";
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
    static std::size_t deaths;
    struct Counted : RefCounter {
        ~Counted() override { ++deaths; }
    };
    std::vector<Counted*> pool(500'000);
    {
        KeptList<Counted> list;
        for (Counted*& one : pool) list.keep(one = new Counted);
        const Ref<Counted> again(pool[1]);
        for (Counted* one : pool) list.keep(one);
        for (int twice = 0; twice < 2; ++twice) list.drop(pool[1]);
        EXPECT_EQ(list.count(), pool.size() - 1);
        list.keep(pool[1]);
        EXPECT_EQ(list.count(), pool.size()) << "who was dropped may come again";
        list.drop(pool[0]);
        EXPECT_EQ(deaths, 1U);
    }
    EXPECT_EQ(deaths, pool.size());
}

// The console's self-tests cover adding and removing values.
TEST(HashTables, KeepKeysApartAndMakeTheFactorysLists) {
    MD4Hash key;
    key.bytes[3] = 1;
    MD4Hash sameBucket = key;
    sameBucket.bytes[15] = 9;
    EXPECT_EQ(numberOfHash(key), 0x01000000U);
    struct Special : HTMD4_InnerList<int> {
        std::unique_ptr<HTMD4_InnerList<int>> newInner() const override {
            return std::make_unique<Special>();
        }
    };
    HTMD4<int> table(std::make_unique<Special>());
    int values[] = {1, 2};
    table.put(key, nullptr);
    EXPECT_EQ(table.get(key), nullptr);
    table.put(key, &values[0]);
    table.put(sameBucket, &values[1]);
    table.removeKey(key);
    EXPECT_EQ(table.get(key), nullptr);
    const auto* old = dynamic_cast<Special*>(table.get(sameBucket));
    table.setSize(0);
    EXPECT_EQ(table.get(sameBucket), nullptr);
    EXPECT_EQ(old->getAt(0), &values[1]) << "what was given out stays";
}

}  // namespace
