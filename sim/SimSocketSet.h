// SimSocketSet: a set of simulated sockets.
#pragma once

#include <vector>

#include "i4min/network/socket_set.h"

class SimSocketSet;

// A socket that can be in a set.
// Thread: the simulation's. Leaves its set when it is destroyed.
class SimMember {
  public:
    SimMember() = default;
    SimMember(const SimMember&) = delete;
    SimMember& operator=(const SimMember&) = delete;

  protected:
    virtual ~SimMember();
    virtual u32 readiness() const = 0;  // the I4_SELECT_* events that hold now
    // Call it after each change of the socket or of its mask.
    void touched();
    void join(SimSocketSet& set, u32 mask, i4_set_owner* owner);
    void leave();
    void watch(u32 mask);
    u32 reported() const { return reported_; }
    bool isInSet() const { return set_ != nullptr; }

  private:
    friend class SimSocketSet;
    u32 wanted() const { return readiness() & (mask_ | I4_SELECT_ERROR); }

    SimSocketSet* set_ = nullptr;
    u32 mask_ = 0;
    i4_set_owner* owner_ = nullptr;
    u32 reported_ = 0;
    bool isTouched_ = false;
};

// The interface that a set calls when one of its sockets becomes ready. SimLoop implements it.
// Thread: the simulation's.
class SimSleeper {
  public:
    virtual void socketReady() = 0;

  protected:
    ~SimSleeper() = default;
};

// Checks only sockets that have changed.
// Thread: the simulation's. Borrows: its sockets, which leave when they are destroyed.
class SimSocketSet final : public i4_socket_set {
  public:
    SimSocketSet() = default;
    SimSocketSet(const SimSocketSet&) = delete;
    SimSocketSet& operator=(const SimSocketSet&) = delete;
    ~SimSocketSet() override;

    i32 poll(i32 timeout_ms) override;  // doesn't wait
    i32 ready() const override { return static_cast<i32>(ready_.size()); }
    std::span<const i4_ready> readyOnes() const override { return ready_; }
    void wake() override {}

    // True if a poll would report an event.
    bool hasReady();
    void restsFor(SimSleeper& sleeper) { sleeper_ = &sleeper; }

    // By number a system's sockets are added; simulated ones join.
    void add(int, u32, i4_set_owner*) override {}
    void change(int, u32) override {}
    void remove(int) override {}
    u32 check(int, u32) const override { return 0; }

  private:
    friend class SimMember;
    void touch(SimMember& member);

    std::vector<SimMember*> members_;
    std::vector<SimMember*> touched_;
    std::vector<i4_ready> ready_;
    SimSleeper* sleeper_ = nullptr;
};
