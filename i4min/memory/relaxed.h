// Relaxed, a single word that threads share without a lock.
#pragma once

#include <atomic>
#include <type_traits>

// Reads and writes like a plain T, at the same cost and without a data race. Thread: any. Accesses to
// different words aren't ordered: a caller that needs two words to agree takes a lock.
template <class T>
class Relaxed {
  public:
    constexpr Relaxed() = default;
    constexpr Relaxed(T value) : value_(value) {}
    Relaxed(const Relaxed&) = delete;

    operator T() const { return get(); }
    T get() const { return value_.load(std::memory_order_relaxed); }
    Relaxed& operator=(T value) {
        value_.store(value, std::memory_order_relaxed);
        return *this;
    }
    Relaxed& operator=(const Relaxed& other) { return *this = other.get(); }
    // Atomic for integers; for other types only one thread may add.
    void add(T amount) {
        if constexpr (std::is_integral_v<T>) {
            value_.fetch_add(amount, std::memory_order_relaxed);
        } else {
            *this = get() + amount;
        }
    }

  private:
    std::atomic<T> value_{};
};
