// ABSocketPool: a socket pool that estimates the line's capacity by experiment.
#pragma once

#include "transport/PacedPool.h"

// Every five minutes it measures all connections for 45 seconds, then gives priority to about every other
// busy one for 45 seconds. If those became faster, the line is full and its capacity is what was transferred;
// if not, it can carry more.
//
//   mode            event                                                   to
//   idle            more than 300,000 ms                                    baseline
//   baseline        more than 45,000 ms, a busy one not chosen              priority
//   baseline        more than 45,000 ms, otherwise                          idle
//   baseline        a chosen connection leaves                              idle, a new measurement is due
//   priority        more than 45,000 ms                                     idle
//
// An alternative to STSocketPool, which the program uses.
// Thread: as PacedPool.
class ABSocketPool : public PacedPool {
  public:
    enum Mode : u32 { idle = 0, baseline = 1, priority = 2 };

    using PacedPool::PacedPool;
    ~ABSocketPool() override;

    // Returns the new estimate in KB/s, from the old one (`maximum`), the speed of the chosen connections
    // without (`base`) and with priority (`chosen`), and the speed of all connections (`total`).
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
