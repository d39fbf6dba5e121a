// Socket sets: waiting for many sockets at once.
#pragma once

#include <poll.h>

#include <cstddef>
#include <vector>

#include "i4min/file/descriptor.h"
#include "i4min/memory/types.h"

// What a socket is ready for, or should be asked about.
enum i4_select : u32 {
    I4_SELECT_READ = 1,
    I4_SELECT_WRITE = 2,
    I4_SELECT_ERROR = 4,
};

// The poll events that a mask asks for, and the mask that poll's answer makes. A socket that hung up, or
// whose descriptor is no longer open, is both readable and in error: whoever asks about either hears of it,
// and no poll is woken by a socket that nobody then takes up.
short i4_events_of_mask(u32 mask);
u32 i4_mask_of_events(short events);

// Waits for the sockets in it. Thread: one, but for wake(). Owns nothing: descriptors are taken out before
// they are closed. A socket enters through i4_socket::add_to_set.
class i4_socket_set {
  public:
    // Waits at most that long (-1: without a limit) until a socket is ready. Returns how many are: 0 when the
    // time ran out or wake() was called, below 0 when the system's poll failed.
    virtual i32 poll(i32 timeout_ms) = 0;
    virtual ~i4_socket_set() = default;

    virtual void add(int descriptor, u32 mask) = 0;         // the same descriptor may be added twice
    virtual void change(int descriptor, u32 mask) = 0;      // asks for `mask` from now on; all its entries
    virtual void remove(int descriptor) = 0;                // all its entries; nothing for an unknown one
    virtual u32 check(int descriptor, u32 mask) const = 0;  // the bits of `mask` that the last poll reported
    // Ends a poll that is going on, or makes the next one return at once. Thread: any.
    virtual void wake() = 0;
};

// The set on poll. Finding a descriptor takes the same short time however many there are.
class linux_socket_set : public i4_socket_set {
  public:
    linux_socket_set();
    linux_socket_set(const linux_socket_set&) = delete;
    linux_socket_set& operator=(const linux_socket_set&) = delete;

    i32 poll(i32 timeout_ms) override;
    void add(int descriptor, u32 mask) override;
    void change(int descriptor, u32 mask) override;
    void remove(int descriptor) override;
    u32 check(int descriptor, u32 mask) const override;
    void wake() override;

    std::size_t count() const { return count_; }
    std::size_t capacity() const { return capacity_; }  // grows by 32 entries at a time

  private:
    static constexpr std::size_t none = static_cast<std::size_t>(-1);

    std::size_t find(int descriptor) const;
    template <class Action>
    void forEach(int descriptor, Action action);
    void compact();
    // Asserts for a small set that each descriptor is found at its first entry and that the counts are right;
    // each change of a debug build runs it.
    void checkInvariants() const;

    // Entry 0 is wake_; an entry of -1 was removed, and goes at the next poll.
    std::vector<pollfd> entries_;
    std::vector<std::size_t> first_;  // by descriptor: its first entry
    std::size_t count_ = 0;
    std::size_t capacity_ = 0;
    std::size_t removed_ = 0;
    std::size_t repeated_ = 0;  // entries behind the first of their descriptor
    const i4_descriptor wake_;
};
