// STSocketPool, the pool of the running program.
#pragma once

#include <array>

#include "transport/PacedPool.h"

// Estimates what the line can carry from the speeds that are reached: at once up to any speed, slowly
// down while the line isn't used to the full.
class STSocketPool : public PacedPool {
  public:
    // Eight entries of a direction's history, the next one to be replaced, and the estimate made of them.
    struct History {
        std::array<f32, 8> entries{};
        u32 index = 0;
        // The estimate that follows `maximum` after a sample of the present speed, all in KB/s.
        f32 update(f32 current, f32 maximum);
    };

    using PacedPool::PacedPool;
    ~STSocketPool() override;
    void start() override;

  protected:
    void elapsed(i32 ms) override;
    const char* failureText() const override;

  private:
    // Moves maxUpSpeed and maxDownSpeed of the preferences.
    void updateSpeeds();

    i32 timer_ = 0;  // ms since the last update
    History up_;
    History down_;
};
