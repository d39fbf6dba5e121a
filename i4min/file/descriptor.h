// i4_descriptor, the owner of a file descriptor.
#pragma once

#include <unistd.h>

#include <utility>

// Closes what it holds; a number below 0 is none. Thread: one at a time.
class i4_descriptor {
  public:
    explicit i4_descriptor(int number = -1) : number_(number) {}
    i4_descriptor(i4_descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
    i4_descriptor& operator=(i4_descriptor&& other) noexcept {
        std::swap(number_, other.number_);
        return *this;
    }
    ~i4_descriptor() {
        if (number_ >= 0) ::close(number_);
    }
    int get() const { return number_; }
    bool isOpen() const { return number_ >= 0; }

  private:
    int number_;
};
