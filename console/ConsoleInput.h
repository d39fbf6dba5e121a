// ConsoleInput, the lines that the user types, waited for in a way that another thread can end.
#pragma once

#include <array>
#include <cstddef>

#include "i4min/file/descriptor.h"

// Thread: readLine() and waitForEnd() on one; end() on any. Borrows its input descriptor.
class ConsoleInput {
  public:
    explicit ConsoleInput(int descriptor);
    ConsoleInput(const ConsoleInput&) = delete;
    ConsoleInput& operator=(const ConsoleInput&) = delete;

    // Reads one line of at most `size` - 1 bytes without its newline; what is over that is dropped to the end
    // of the line. False when the input ends with no line left, and from end() on.
    bool readLine(char* out, std::size_t size);
    // Returns once end() was called; the input is left alone.
    void waitForEnd();
    // No line is read any more, and a wait that is going on ends.
    void end();

  private:
    bool fill();  // false at the end of the input, or of it all
    bool isEnded() const;

    const int descriptor_;
    const i4_descriptor endEvent_;  // readable from end() on
    std::array<char, 4096> buffer_;
    std::size_t here_ = 0;
    std::size_t filled_ = 0;
};
