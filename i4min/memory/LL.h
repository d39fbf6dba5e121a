// LL, the list of pointers that most objects are kept in.
#pragma once

#include <algorithm>
#include <iterator>
#include <list>
#include <memory>
#include <utility>
#include <vector>

#include "i4min/memory/Random.h"
#include "i4min/memory/types.h"

// A list of non-null pointers. It owns nothing: destroying it frees its nodes, not what they point at.
// Thread: none of its own; see LLsafe for the form with a lock. A walk:
//
//     for (typename LL<T>::Cursor c; T* v = list.next(c);) use(v);
template <class T>
class LL {
    using Values = std::list<T*>;

  public:
    // The position of a walk. A fresh cursor is before the first element, and one behind the last counts as
    // fresh. Removing the element at the cursor invalidates it.
    class Cursor {
        friend class LL;
        typename Values::const_iterator at_;
        bool fresh_ = true;
    };

    LL() = default;
    LL(const LL&) = delete;
    LL& operator=(const LL&) = delete;
    virtual ~LL() = default;

    virtual void add(T* value) {  // null is ignored
        if (value) values_.push_back(value);
    }
    virtual void addFront(T* value) {  // null is ignored
        if (value) values_.push_front(value);
    }
    virtual bool addUnique(T* value) {  // false if it is there already
        if (contains(value)) return false;
        add(value);
        return true;
    }
    virtual void replaceAt(u32 index, T* value) {  // past the end: add
        const auto at = place(index);
        if (at == values_.end()) return LL::add(value);
        *at = value;
    }
    virtual void insertAt(u32 index, T* value) {  // past the end: add
        if (value) values_.insert(place(index), value);
    }
    virtual bool remove(T* value) {  // the first one
        const auto at = std::find(values_.begin(), values_.end(), value);
        if (at == values_.end()) return false;
        values_.erase(at);
        return true;
    }
    virtual T* removeAt(u32 index) {  // null past the end
        const auto at = place(index);
        if (at == values_.end()) return nullptr;
        T* const value = *at;
        values_.erase(at);
        return value;
    }
    virtual void clear() { values_.clear(); }
    virtual u32 count() const { return static_cast<u32>(values_.size()); }
    virtual T* getAt(u16 index) const {  // null past the end
        return index < values_.size() ? *std::next(values_.begin(), index) : nullptr;
    }
    // Removes the element behind the cursor. With the cursor as it stood before the step that returned the
    // element to remove, the result serves as the cursor of the walk from there on. If nothing follows the
    // cursor, the result is a fresh one.
    virtual Cursor removeNext(Cursor cursor) {
        const auto behind = following(cursor);
        if (behind == values_.end()) return {};
        values_.erase(behind);
        return cursor;
    }
    virtual bool contains(const T* value) const {
        return std::find(values_.begin(), values_.end(), value) != values_.end();
    }
    virtual void addAll(const LL& other) {
        for (T* value : other.values_) add(value);
    }
    virtual void removeAll(const LL& other) {
        for (T* value : other.values_) remove(value);
    }
    // Sorts so that compare(a, b) holds for neighbours a, b. `compare` is a less-or-equal or greater-or-equal
    // test. Of equal elements the one that stood further back comes first. The compared fields may change
    // meanwhile (speeds do, while a view sorts by them): the order is then a rough one.
    virtual void sort(bool (*compare)(const T* a, const T* b)) {
        values_.reverse();
        values_.sort([&](const T* a, const T* b) { return !compare(b, a); });
    }
    // Random order.
    virtual void shuffle(Random& random) {
        std::vector<T*> left(values_.begin(), values_.end());
        for (T*& value : values_) {
            std::swap(left[random.below(static_cast<u32>(left.size()))], left.back());
            value = left.back();
            left.pop_back();
        }
    }

    T* first() const { return isEmpty() ? nullptr : values_.front(); }  // null when empty
    bool isEmpty() const { return values_.empty(); }

    // Moves the cursor to the next element and returns it, null at the end.
    T* next(Cursor& cursor) const {
        cursor.at_ = following(cursor);
        cursor.fresh_ = false;
        return cursor.at_ == values_.end() ? nullptr : *cursor.at_;
    }

  private:
    typename Values::const_iterator following(const Cursor& cursor) const {
        return cursor.fresh_ || cursor.at_ == values_.end() ? values_.begin() : std::next(cursor.at_);
    }
    typename Values::iterator place(u32 index) {
        return index < values_.size() ? std::next(values_.begin(), index) : values_.end();
    }

    Values values_;
};

// The first element for which `matches` holds, null if there is none. Takes no lock.
template <class T, class Matches>
T* findIn(const LL<T>& list, Matches matches) {
    for (typename LL<T>::Cursor c; T* element = list.next(c);) {
        if (matches(*element)) return element;
    }
    return nullptr;
}

// Destroys what the list points at and empties it, for an owner of the elements. Takes no lock.
template <class T>
void deleteAll(LL<T>& list) {
    while (const std::unique_ptr<T> value{list.LL<T>::removeAt(0)}) continue;
}

// An LL that owns its elements, and deletes those that are left when it is destroyed. What remove(),
// removeAt() or clear() takes out belongs to the caller; take() returns it with its ownership.
// Thread: none of its own.
template <class T>
class OwnLL : public LL<T> {
  public:
    ~OwnLL() override { deleteAll(*this); }
    T* own(std::unique_ptr<T> value) {  // at the end
        LL<T>::add(value.get());
        return value.release();
    }
    T* ownFront(std::unique_ptr<T> value) {
        LL<T>::addFront(value.get());
        return value.release();
    }
    std::unique_ptr<T> take(T* value) { return std::unique_ptr<T>(LL<T>::remove(value) ? value : nullptr); }
};
