// SimSocketSet, a set of simulated sockets.
#pragma once

#include <vector>

#include "i4min/network/socket_set.h"

class SimSocketSet;

// A socket in a set.
class SimMember {
  public:
    SimMember() = default;
    SimMember(const SimMember&) = delete;
    SimMember& operator=(const SimMember&) = delete;

  protected:
    virtual ~SimMember();
    virtual u32 readiness() const = 0;  // I4_SELECT_* that are so now
    // Something has happened to the socket, or it is asked about something else.
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

// Who rests for the sockets of a set.
class SimSleeper {
  public:
    virtual void socketReady() = 0;

  protected:
    ~SimSleeper() = default;
};

// Only sockets that something has happened to are looked at. Thread: the simulation's.
class SimSocketSet final : public i4_socket_set {
  public:
    SimSocketSet() = default;
    SimSocketSet(const SimSocketSet&) = delete;
    SimSocketSet& operator=(const SimSocketSet&) = delete;
    ~SimSocketSet() override;

    i32 poll(i32 timeout_ms) override;  // never waits
    i32 ready() const override { return static_cast<i32>(ready_.size()); }
    std::span<const i4_ready> readyOnes() const override { return ready_; }
    void wake() override {}

    // Whether a poll would report something.
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
