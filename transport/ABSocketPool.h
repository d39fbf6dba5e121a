// ABSocketPool, a pool that finds the line's capacity by an experiment.
#pragma once

#include "transport/PacedPool.h"

// Every five minutes it measures all connections for 45 seconds, then gives about every other busy one
// priority for 45 seconds. If that made those faster the line is full, and its capacity is what moved; if
// not, it can carry more.
//
//   mode            event                                                   to
//   idle            more than 300,000 ms                                    baseline
//   baseline        more than 45,000 ms, a busy one not chosen              priority
//   baseline        more than 45,000 ms, otherwise                          idle
//   baseline        a chosen connection leaves                              idle, a new measurement is due
//   priority        more than 45,000 ms                                     idle
//
// A complete alternative to STSocketPool, which the running program uses.
// Thread: as PacedPool.
class ABSocketPool : public PacedPool {
  public:
    enum Mode : u32 { idle = 0, baseline = 1, priority = 2 };

    using PacedPool::PacedPool;
    ~ABSocketPool() override;

    // The estimate of the line, in KB/s, that follows `maximum` when the chosen connections moved `base`
    // without and `chosen` with priority, and all of them `total`.
    static f32 adjust(f32 base, f32 chosen, f32 total, f32 maximum);

  protected:
    void elapsed(i32 ms) override;
    bool turns() override;
    const char* failureText() const override;
    void addedAgain() override {}  // additions change `count` only when they are asked for
    void leaving(Connection& connection) override;

    Mode mode() const { return mode_; }

  private:
    void tick();
    void startBaseline();
    void endBaseline(i32 ms);
    bool runPriority();
    void endPriority(i32 ms);

    i32 timer_ = 0;   // ms
    f32 baseUp_ = 0;  // KB/s of the chosen connections without priority
    f32 baseDown_ = 0;
    Mode mode_ = idle;
    std::vector<Ref<Connection>> priority_;  // the chosen ones
};
