// HT32, a hash table from 32-bit keys to lists of pointers, and the table behind it.
#pragma once

#include <memory>
#include <unordered_map>
#include <utility>
#include <vector>

#include "i4min/memory/LL.h"
#include "i4min/memory/types.h"

// The values of one key. A table makes its lists through newInner of the one it was given, so that all are of
// that one's class.
template <class T, class Key>
class HT_InnerList : public LL<T> {
  public:
    Key key{};

    virtual std::unique_ptr<HT_InnerList> newInner() const { return std::make_unique<HT_InnerList>(); }
};

// A table from keys to inner lists, each of which holds the values of its key in the order in which they
// came.
// Thread: none of its own.
// Owns: the inner lists and the factory.    Borrows: the values.
template <class T, class Key, u32 (*number)(const Key&)>
class HashTable {
  public:
    using Inner = HT_InnerList<T, Key>;

    explicit HashTable(std::unique_ptr<Inner> factory = std::make_unique<Inner>())
        : factory_(std::move(factory)) {}

    // Begins anew, with at least so many buckets. Inner lists that get() has returned stay as they are until
    // the table is destroyed.
    void setSize(u32 buckets) {
        for (auto& [key, inner] : lists_) retired_.push_back(std::move(inner));
        lists_.clear();
        lists_.rehash(buckets);
    }
    void put(const Key& key, T* value) {  // null is ignored
        if (!value) return;
        std::unique_ptr<Inner>& inner = lists_[key];
        if (!inner) inner = factory_->newInner();
        inner->key = key;
        inner->add(value);
    }
    Inner* get(const Key& key) const {  // null where the key has no value
        const auto at = lists_.find(key);
        return at == lists_.end() ? nullptr : at->second.get();
    }
    void removeValue(const Key& key, T* value) {  // the key goes with its last value
        Inner* inner = get(key);
        if (!inner) return;
        inner->remove(value);
        if (inner->isEmpty()) removeKey(key);
    }
    void removeKey(const Key& key) { lists_.erase(key); }

  private:
    struct Hash {
        std::size_t operator()(const Key& key) const { return number(key); }
    };

    const std::unique_ptr<Inner> factory_;
    std::unordered_map<Key, std::unique_ptr<Inner>, Hash> lists_;
    std::vector<std::unique_ptr<Inner>> retired_;
};

inline u32 numberOfKey(const u32& key) { return key; }

template <class T>
using HT32_InnerList = HT_InnerList<T, u32>;
template <class T>
using HT32 = HashTable<T, u32, numberOfKey>;
