// LLsafe, the list with a lock of its own.
#pragma once

#include "i4min/memory/LL.h"
#include "i4min/memory/mutex.h"

// Thread: any, for single calls. A walk, or two calls that belong together, hold lock() around them and use
// only the Unsafe forms, next() and contains() meanwhile: the lock is not recursive.
//
//   locked for one call    add addFront replaceAt remove removeAt clear count getAt addAll removeAll sort
//                          first
//   not locked as a whole  addUnique: contains() without the lock, then add()
//   no lock of their own   insertAt removeNext contains shuffle next
template <class T>
class CAPABILITY("list") LLsafe : public LL<T> {
    using Base = LL<T>;

  public:
    explicit LLsafe(LockRank rank = LockRank::leaf) : mutex_(rank) {}

    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

    void add(T* value) override {
        i4_lock guard(mutex_);
        Base::add(value);
    }
    void addFront(T* value) override {
        i4_lock guard(mutex_);
        Base::addFront(value);
    }
    bool addUnique(T* value) override {
        if (this->contains(value)) return false;
        add(value);
        return true;
    }
    void replaceAt(u32 index, T* value) override {
        i4_lock guard(mutex_);
        Base::replaceAt(index, value);
    }
    bool remove(T* value) override {
        i4_lock guard(mutex_);
        return Base::remove(value);
    }
    T* removeAt(u32 index) override {
        i4_lock guard(mutex_);
        return Base::removeAt(index);
    }
    void clear() override {
        i4_lock guard(mutex_);
        Base::clear();
    }
    u32 count() const override {
        i4_lock guard(mutex_);
        return Base::count();
    }
    T* getAt(u16 index) const override {
        i4_lock guard(mutex_);
        return Base::getAt(index);
    }
    // The other list is walked without its lock.
    void addAll(const LL<T>& other) override {
        i4_lock guard(mutex_);
        for (typename Base::Cursor c; T* value = other.next(c);) Base::add(value);
    }
    void removeAll(const LL<T>& other) override {
        i4_lock guard(mutex_);
        for (typename Base::Cursor c; T* value = other.next(c);) Base::remove(value);
    }
    void sort(bool (*compare)(const T* a, const T* b)) override {
        i4_lock guard(mutex_);
        Base::sort(compare);
    }

    T* first() const {
        i4_lock guard(mutex_);
        return Base::first();
    }

    // For a caller that holds lock().
    void addUnsafe(T* value) REQUIRES(this) { Base::add(value); }
    void replaceAtUnsafe(u32 index, T* value) REQUIRES(this) { Base::replaceAt(index, value); }
    bool removeUnsafe(T* value) REQUIRES(this) { return Base::remove(value); }
    void clearUnsafe() REQUIRES(this) { Base::clear(); }
    u32 countUnsafe() const REQUIRES(this) { return Base::count(); }
    T* getAtUnsafe(u16 index) const REQUIRES(this) { return Base::getAt(index); }
    T* firstUnsafe() const REQUIRES(this) { return Base::first(); }

  private:
    mutable i4_mutex mutex_;
};
