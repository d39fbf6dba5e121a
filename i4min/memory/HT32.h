// HT32, a hash table from 32-bit keys to lists of pointers, and the table behind it.
#pragma once

#include <algorithm>
#include <cassert>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "i4min/memory/LL.h"
#include "i4min/memory/debug_build.h"
#include "i4min/memory/types.h"

// The values of one key. A table makes its lists through newInner of the one it was given, so that all are of
// that one's class.
template <class T, class Key>
class HT_InnerList : public LL<T> {
  public:
    Key key{};

    virtual std::unique_ptr<HT_InnerList> newInner() const { return std::make_unique<HT_InnerList>(); }
};

// A table of buckets. A bucket holds an inner list for each key that falls in it, an inner list the values of
// its key in the order of their coming. The number of buckets is set once; the table doesn't grow.
// Thread: none of its own.
// Owns: the inner lists and the factory.    Borrows: the values.
template <class T, class Key, u32 (*number)(const Key&)>
class HashTable {
  public:
    using Inner = HT_InnerList<T, Key>;

    explicit HashTable(std::unique_ptr<Inner> factory = std::make_unique<Inner>())
        : factory_(std::move(factory)) {}

    // Begins with empty buckets, at least one. Inner lists that get() has given out stay as they are until
    // the table goes.
    void setSize(u32 buckets) {
        for (Bucket& bucket : buckets_) std::move(bucket.begin(), bucket.end(), std::back_inserter(retired_));
        buckets_ = std::vector<Bucket>(std::max<u32>(buckets, 1));
    }
    void put(const Key& key, T* value) {  // null is ignored
        if (!value) return;
        Inner* inner = get(key);
        if (!inner) {
            inner = bucketOf(key).emplace_back(factory_->newInner()).get();
            inner->key = key;
        }
        inner->add(value);
        checkInvariants(key);
    }
    Inner* get(const Key& key) const {  // null where the key has no value
        const Bucket& bucket = bucketOf(key);
        const auto at = find(bucket, key);
        return at == bucket.end() ? nullptr : at->get();
    }
    void removeValue(const Key& key, T* value) {  // the key goes with its last value
        Inner* inner = get(key);
        if (!inner) return;
        inner->remove(value);
        if (!inner->getAt(0)) removeKey(key);
        checkInvariants(key);
    }
    void removeKey(const Key& key) {
        Bucket& bucket = bucketOf(key);
        if (const auto at = find(bucket, key); at != bucket.end()) bucket.erase(at);
    }

    // Asserts for the bucket of a key that each list in it belongs there, has a value, and is its key's only
    // one; each change of a debug build runs it.
    void checkInvariants(const Key& key) const {
        if constexpr (debugBuild) {
            const Bucket& bucket = bucketOf(key);
            for (const auto& inner : bucket) {
                assert(&bucketOf(inner->key) == &bucket && !inner->isEmpty());
                assert(find(bucket, inner->key)->get() == inner.get());
            }
        }
    }

  private:
    using Bucket = std::vector<std::unique_ptr<Inner>>;

    static auto find(const Bucket& bucket, const Key& key) {
        return std::find_if(bucket.begin(), bucket.end(),
                            [&](const auto& inner) { return inner->key == key; });
    }
    const Bucket& bucketOf(const Key& key) const { return buckets_[number(key) % buckets_.size()]; }
    Bucket& bucketOf(const Key& key) { return buckets_[number(key) % buckets_.size()]; }

    const std::unique_ptr<Inner> factory_;
    std::vector<Bucket> buckets_ = std::vector<Bucket>(1);
    Bucket retired_;
};

inline u32 numberOfKey(const u32& key) { return key; }

template <class T>
using HT32_InnerList = HT_InnerList<T, u32>;
template <class T>
using HT32 = HashTable<T, u32, numberOfKey>;
