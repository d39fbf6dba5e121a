// What fuzz targets share: a target's entry, its demands, and an interface that says nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "app/UIInterface.h"
#include "tests/support/bytes.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

// Ends the run, so that its input is kept, unless the demand holds.
inline void require(bool holds) {
    if (!holds) std::abort();
}

// Damage is told in lines, which nobody reads here.
class Silence : public CoreUIInterface {
  public:
    Silence() {
        theLog = this;
        theUI = this;
    }
    void printLine(const char*, ...) override PRINTF_LIKE {}
    void print(const char*, ...) override PRINTF_LIKE {}
};
