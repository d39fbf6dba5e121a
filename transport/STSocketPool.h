// STSocketPool: the socket pool that the program uses.
#pragma once

#include <array>

#include "transport/PacedPool.h"

// Estimates the line's capacity from the speeds reached: it rises at once to any higher speed, and falls
// slowly while the line isn't fully used.
// Thread: as PacedPool.
class STSocketPool : public PacedPool {
  public:
    // Eight samples of one direction and the index of the next one to replace.
    struct History {
        std::array<f32, 8> entries{};
        u32 index = 0;
        // Adds a sample (`current`) and returns the new estimate that follows `maximum`, all in KB/s.
        f32 update(f32 current, f32 maximum);
    };

    using PacedPool::PacedPool;
    ~STSocketPool() override;
    void start() override;

  protected:
    void elapsed(i32 ms) override;
    const char* failureText() const override;

  private:
    // Updates maxUpSpeed and maxDownSpeed of the preferences.
    void updateSpeeds();

    i32 timer_ = 0;  // ms since the last update
    History up_;
    History down_;
};
