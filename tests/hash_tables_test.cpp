// The tables from 32-bit keys and from hashes to lists of values.
#include <gtest/gtest.h>

#include <memory>
#include <utility>

#include "i4min/memory/HT32.h"
#include "meta/HTMD4.h"

namespace {

// Two keys that share a bucket, one that doesn't, and the life of a key.
template <class Table, class Key>
void tryTable(const Key& key, const Key& sameBucket, const Key& other) {
    Table table;
    table.setSize(17);
    int values[] = {2, 3, 4, 5};
    table.put(key, nullptr);
    EXPECT_EQ(table.get(key), nullptr);
    table.put(key, &values[0]);
    table.put(key, &values[1]);
    table.put(sameBucket, &values[2]);
    table.put(other, &values[3]);
    ASSERT_NE(table.get(key), nullptr);
    EXPECT_EQ(table.get(key)->getAt(0), &values[0]);
    EXPECT_EQ(table.get(key)->getAt(1), &values[1]);
    table.removeValue(key, &values[0]);
    EXPECT_EQ(table.get(key)->getAt(0), &values[1]);
    EXPECT_EQ(table.get(key)->getAt(1), nullptr);
    table.removeValue(key, &values[1]);
    table.removeValue(key, &values[1]);
    EXPECT_EQ(table.get(key), nullptr);
    ASSERT_NE(table.get(sameBucket), nullptr);
    EXPECT_EQ(table.get(sameBucket)->key, sameBucket);
    EXPECT_EQ(table.get(sameBucket)->getAt(0), &values[2]);
    EXPECT_EQ(table.get(other)->getAt(0), &values[3]);
    const auto* old = table.get(other);
    table.removeKey(sameBucket);
    table.removeKey(sameBucket);
    EXPECT_EQ(table.get(sameBucket), nullptr);
    table.setSize(0);
    EXPECT_EQ(table.get(other), nullptr);
    EXPECT_EQ(old->getAt(0), &values[3]) << "what was given out stays";
    table.put(other, &values[0]);
    EXPECT_EQ(table.get(other)->count(), 1u);
}

TEST(HashTablesTest, KeysAreKeptApart) {
    tryTable<HT32<int>, u32>(40, 57, 41);
    MD4Hash key;
    key.bytes[3] = 1;
    MD4Hash sameBucket = key;
    sameBucket.bytes[15] = 9;
    MD4Hash other = key;
    other.bytes[0] = 1;
    EXPECT_EQ(numberOfHash(other), 0x01000001u);
    tryTable<HTMD4<int>, MD4Hash>(key, sameBucket, other);
}

TEST(HashTablesTest, ListsAreOfTheFactorysClass) {
    struct Special : HT32_InnerList<int> {
        std::unique_ptr<HT32_InnerList<int>> newInner() const override { return std::make_unique<Special>(); }
    };
    HT32<int> table(std::make_unique<Special>());
    int value = 1;
    table.put(5, &value);
    EXPECT_NE(dynamic_cast<Special*>(table.get(5)), nullptr);
}

}  // namespace
