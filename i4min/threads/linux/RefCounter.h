// RefCounter, the base of objects that threads share, and Ref, a counted pointer to one.
#pragma once

#include <algorithm>
#include <atomic>
#include <type_traits>
#include <utility>
#include <vector>

#include "i4min/memory/types.h"

// The base of counted objects. The count begins at 0; the object deletes itself with its last reference, so
// it lies on the heap and is made by makeRef. Thread: any; the count is atomic.
class RefCounter {
  public:
    RefCounter() = default;
    RefCounter(const RefCounter&) = delete;
    RefCounter& operator=(const RefCounter&) = delete;
    virtual ~RefCounter() = default;

    void addRef() { count_.fetch_add(1, std::memory_order_relaxed); }
    // Deletes the object when the count falls below 1.
    void release() {
        if (count_.fetch_sub(1, std::memory_order_acq_rel) <= 1) delete this;
    }

  private:
    std::atomic<i32> count_{0};
};

// Owns one reference, or none. T needs to be complete only where the object is used, so that a queue can
// carry references to classes that it doesn't know. Thread: one at a time, as any plain value.
template <class T>
class Ref {
  public:
    Ref() = default;
    explicit Ref(T* object) : Ref(static_cast<RefCounter*>(object), Known()) {}
    Ref(const Ref& other) : Ref(other.counter_, Known()) {}
    Ref(Ref&& other) noexcept : counter_(std::exchange(other.counter_, nullptr)) {}
    template <class Derived>
    requires std::is_base_of_v<T, Derived> Ref(Ref<Derived> other)
    noexcept : counter_(std::exchange(other.counter_, nullptr)) {}
    ~Ref() { reset(); }
    Ref& operator=(Ref other) noexcept {
        std::swap(counter_, other.counter_);
        return *this;
    }

    // Takes over a reference that the caller holds already.
    static Ref adopt(T* object) {
        Ref result;
        result.counter_ = object;
        return result;
    }
    // Gives the reference to the caller, who releases it.
    [[nodiscard]] T* detach() { return static_cast<T*>(std::exchange(counter_, nullptr)); }
    void reset() {
        if (RefCounter* counter = std::exchange(counter_, nullptr)) counter->release();
    }

    T* get() const { return static_cast<T*>(counter_); }
    T* operator->() const { return get(); }
    T& operator*() const { return *get(); }
    explicit operator bool() const { return counter_ != nullptr; }

  private:
    template <class>
    friend class Ref;
    struct Known {};
    Ref(RefCounter* counter, Known) : counter_(counter) {
        if (counter_) counter_->addRef();
    }
    RefCounter* counter_ = nullptr;
};

// A new object with its first reference.
template <class T, class... Arguments>
[[nodiscard]] Ref<T> makeRef(Arguments&&... arguments) {
    return Ref<T>(new T(std::forward<Arguments>(arguments)...));
}

// The first object of the list for which `matches` holds, null if there is none.
template <class T, class Matches>
T* findIn(const std::vector<Ref<T>>& list, Matches matches) {
    const auto at =
        std::find_if(list.begin(), list.end(), [&](const Ref<T>& held) { return matches(*held); });
    return at == list.end() ? nullptr : at->get();
}

template <class T>
bool holds(const std::vector<Ref<T>>& list, const T* object) {
    return findIn(list, [&](const T& held) { return &held == object; }) != nullptr;
}

// Appends a reference to an object that the list doesn't hold yet; false if it does.
template <class T>
bool addUnique(std::vector<Ref<T>>& list, T* object) {
    if (holds(list, object)) return false;
    list.emplace_back(object);
    return true;
}

// Removes the object from the list; false if it isn't there.
template <class T>
bool removeFrom(std::vector<Ref<T>>& list, const T* object) {
    return std::erase_if(list, [&](const Ref<T>& held) { return held.get() == object; }) > 0;
}
