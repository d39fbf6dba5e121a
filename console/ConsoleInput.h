// ConsoleInput: reads the user's lines in a way that another thread can interrupt.
#pragma once

#include <array>
#include <cstddef>

#include "i4min/file/descriptor.h"

// Waits for input and for end() at the same time, so that quitting doesn't need a key press.
// Thread: readLine() and waitForEnd() on one; end() on any.
// Owns: the event of end(). Borrows: the input descriptor.
class ConsoleInput {
  public:
    explicit ConsoleInput(int descriptor);
    ConsoleInput(const ConsoleInput&) = delete;
    ConsoleInput& operator=(const ConsoleInput&) = delete;

    // Reads a line of at most `size` - 1 bytes, without its newline; the rest of a longer line is dropped.
    // Returns false at the end of the input and after end().
    bool readLine(char* out, std::size_t size);
    // Blocks until end() is called, without reading any input.
    void waitForEnd();
    // Ends the current and all further reads and waits.
    void end();

  private:
    bool fill();  // false at the end of the input and after end()
    bool isEnded() const;

    const int descriptor_;
    const i4_descriptor endEvent_;  // readable once end() was called
    std::array<char, 4096> buffer_;
    std::size_t here_ = 0;
    std::size_t filled_ = 0;
};
