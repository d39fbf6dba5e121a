// LL, the singly linked list of pointers in which nearly everything is kept.
#pragma once

#include <algorithm>
#include <cassert>
#include <utility>
#include <vector>

#include "i4min/memory/Random.h"
#include "i4min/memory/debug_build.h"
#include "i4min/memory/types.h"

template <class T>
struct LLNode {
    T* value = nullptr;
    LLNode* next = nullptr;
};

// A list of non-null pointers. It owns nothing: destroying it frees its nodes, not what they point at.
// Thread: none of its own; see LLsafe for the form with a lock.
//
// The list object is its own sentinel: a node whose value is null, so that the nodes form a ring through it
// and a walk ends at the first null value:
//
//     for (typename LL<T>::Cursor c; T* v = list.next(c);) use(v);
template <class T>
class LL {
    using Node = LLNode<T>;

  public:
    // Where a walk stands. A fresh cursor stands before the first element. Removing the element that it
    // stands on makes it invalid.
    class Cursor {
        friend class LL;
        const Node* node_ = nullptr;
    };

    LL() { sentinel_.next = &sentinel_; }
    LL(const LL&) = delete;
    LL& operator=(const LL&) = delete;
    virtual ~LL() { freeNodes(); }

    virtual void add(T* value) {  // null is ignored
        if (value) linkAfter(tail_, value);
    }
    virtual void addFront(T* value) {  // null is ignored
        if (value) linkAfter(&sentinel_, value);
    }
    virtual bool addUnique(T* value) {  // false if it is there already
        if (contains(value)) return false;
        add(value);
        return true;
    }
    virtual void replaceAt(u32 index, T* value) {  // past the end: add
        if (Node* before = beforeIndex(index)) {
            before->next->value = value;
        } else {
            LL::add(value);
        }
    }
    virtual void insertAt(u32 index, T* value) {  // past the end: add
        if (Node* before = beforeIndex(index)) {
            linkAfter(before, value);
        } else {
            LL::add(value);
        }
    }
    virtual bool remove(T* value) {  // the first node that holds it
        if (!value) return false;
        for (Node* before = &sentinel_; before->next != end(); before = before->next) {
            if (before->next->value == value) {
                unlinkAfter(before);
                return true;
            }
        }
        return false;
    }
    virtual T* removeAt(u32 index) {  // null past the end
        Node* before = beforeIndex(index);
        return before ? unlinkAfter(before) : nullptr;
    }
    virtual void clear() {
        freeNodes();
        sentinel_.next = &sentinel_;
        tail_ = &sentinel_;
    }
    virtual u32 count() const {  // a walk
        u32 n = 0;
        for (const Node* node = head(); node != end(); node = node->next) ++n;
        return n;
    }
    virtual T* getAt(u16 index) const {  // null past the end
        const Node* node = head();
        while (node != end() && index > 0) {
            node = node->next;
            --index;
        }
        return node->value;
    }
    // Removes the element behind the cursor. With the cursor as it stood before the step that returned the
    // element to remove, the result serves as the cursor of the walk from there on. If nothing follows the
    // cursor, the result is a fresh one.
    virtual Cursor removeNext(Cursor cursor) {
        auto* before = cursor.node_ ? const_cast<Node*>(cursor.node_) : &sentinel_;
        Cursor result;
        if (before->next == end()) return result;
        unlinkAfter(before);
        result.node_ = before;
        return result;
    }
    virtual bool contains(const T* value) const {
        for (const Node* node = head(); node != end(); node = node->next) {
            if (node->value == value) return true;
        }
        return false;
    }
    virtual void addAll(const LL& other) {
        for (const Node* node = other.head(); node != other.end(); node = node->next) add(node->value);
    }
    virtual void removeAll(const LL& other) {
        for (const Node* node = other.head(); node != other.end(); node = node->next) remove(node->value);
    }
    // Sorts so that compare(a, b) holds for neighbours a, b. `compare` is a less-or-equal or greater-or-equal
    // test. Of equal elements the one that stood further back comes first.
    virtual void sort(bool (*compare)(const T* a, const T* b)) {
        std::vector<T*> values = take();
        std::reverse(values.begin(), values.end());
        mergeSort(values, [&](const T* a, const T* b) { return !compare(b, a); });
        for (T* value : values) linkAfter(tail_, value);
    }
    // Random order.
    virtual void shuffle(Random& random) {
        std::vector<T*> values = take();
        while (!values.empty()) {
            std::swap(values[random.below(static_cast<u32>(values.size()))], values.back());
            linkAfter(tail_, values.back());
            values.pop_back();
        }
    }

    // Inserts behind the element that the cursor stands on, in front of all for a fresh one. The result
    // stands on the new element. The value must not be null.
    Cursor insertAfter(Cursor cursor, T* value) {
        auto* before = cursor.node_ ? const_cast<Node*>(cursor.node_) : &sentinel_;
        linkAfter(before, value);
        Cursor result;
        result.node_ = before->next;
        return result;
    }

    // The element that the cursor stands on, null for a fresh one.
    T* at(Cursor cursor) const { return cursor.node_ ? cursor.node_->value : nullptr; }

    T* first() const { return head()->value; }  // null when empty
    bool isEmpty() const { return head() == end(); }

    // Moves the cursor to the next element and returns it, null at the end.
    T* next(Cursor& cursor) const {
        cursor.node_ = cursor.node_ ? cursor.node_->next : head();
        return cursor.node_->value;
    }

    // Asserts the ring: no value in it is null, and it ends with the tail. Of a long list only the beginning
    // is looked at; each change of a debug build runs it.
    void checkInvariants() const {
        if constexpr (debugBuild) {
            assert(!sentinel_.value && tail_->next == end());
            constexpr int most = 32;
            const Node* last = end();
            for (int n = 0; n < most && last->next != end(); ++n) {
                last = last->next;
                assert(last->value);
            }
            assert(last->next != end() || last == tail_);
        }
    }

  private:
    Node* head() const { return sentinel_.next; }
    const Node* end() const { return &sentinel_; }

    void linkAfter(Node* before, T* value) {
        auto* node = new Node{value, before->next};
        before->next = node;
        if (tail_ == before) tail_ = node;
        checkInvariants();
    }
    T* unlinkAfter(Node* before) {
        Node* node = before->next;
        T* value = node->value;
        before->next = node->next;
        if (tail_ == node) tail_ = before;
        delete node;
        checkInvariants();
        return value;
    }
    // The node in front of the position, null where the position is past the last element.
    Node* beforeIndex(u32 index) {
        Node* before = &sentinel_;
        while (before->next != end() && index > 0) {
            before = before->next;
            --index;
        }
        return before->next == end() ? nullptr : before;
    }
    void freeNodes() {
        for (Node* node = head(); node != end();) {
            Node* following = node->next;
            delete node;
            node = following;
        }
    }
    std::vector<T*> take() {
        std::vector<T*> values;
        for (const Node* node = head(); node != end(); node = node->next) values.push_back(node->value);
        LL::clear();
        return values;
    }

    // Stable, and safe where the compared fields change meanwhile (speeds do, while a view sorts by them):
    // the order is then a rough one, where the library's sorts would run out of the range.
    template <class Less>
    static void mergeSort(std::vector<T*>& values, Less less) {
        const auto n = static_cast<std::ptrdiff_t>(values.size());
        std::vector<T*> merged(values.size());
        for (std::ptrdiff_t width = 1; width < n; width *= 2) {
            for (std::ptrdiff_t at = 0; at < n; at += 2 * width) {
                const auto left = values.begin() + at;
                const auto right = values.begin() + std::min(at + width, n);
                const auto end = values.begin() + std::min(at + 2 * width, n);
                std::merge(left, right, right, end, merged.begin() + at, less);
            }
            values.swap(merged);
        }
    }

    Node sentinel_;
    Node* tail_ = &sentinel_;
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
    while (T* value = list.LL<T>::removeAt(0)) delete value;
}
