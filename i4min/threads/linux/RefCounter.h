// RefCounter, the base of objects that threads share, and Ref, a counted pointer to one.
#pragma once

#include <atomic>
#include <type_traits>
#include <utility>

#include "i4min/memory/types.h"

// Counts references from 0: the first owner calls addRef(). Thread: any; the count is atomic.
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

// Holds one reference, or none. T needs to be complete only where the object is used, so that a queue can
// carry references to classes that it doesn't know.
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
    T* detach() { return static_cast<T*>(std::exchange(counter_, nullptr)); }
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
Ref<T> makeRef(Arguments&&... arguments) {
    return Ref<T>(new T(std::forward<Arguments>(arguments)...));
}
