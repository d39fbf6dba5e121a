// Random, the source of the engine's random numbers: the system, or the seed of a simulation.
#pragma once

#include <span>

#include "i4min/memory/types.h"

// A source of random numbers. Thread: any. Errors: fill() and next() of the system's source raise if it has
// no random bytes to give.
class Random {
  public:
    virtual u32 next() = 0;  // uniform over all u32
    // Unpredictable bytes, for identities.
    virtual void fill(std::span<u8> out) = 0;
    // A number from 0 up to but not including `limit`, which is above 0.
    u32 below(u32 limit) { return static_cast<u32>(static_cast<u64>(next()) * limit >> 32); }

  protected:
    ~Random() = default;
};
