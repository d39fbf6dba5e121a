// Socket sets: waiting for many sockets at once.
#pragma once

#include <sys/epoll.h>

#include <cstddef>
#include <span>
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

// The base of what a caller finds again when a socket of its set is ready.
class i4_set_owner {
  protected:
    ~i4_set_owner() = default;
};

// A socket for which the last poll reported something.
struct i4_ready {
    i4_set_owner* owner;  // as given to add()
    u32 mask;
};

// Waits for the sockets in it. Thread: one, but for wake(). Owns nothing: descriptors are taken out before
// they are closed. A socket enters through i4_socket::add_to_set.
class i4_socket_set {
  public:
    // Waits at most that long (-1: without a limit) until a socket is ready. Returns how many are: 0 when the
    // time ran out or wake() was called, below 0 when the system's poll failed.
    virtual i32 poll(i32 timeout_ms) = 0;
    virtual i32 ready() const = 0;  // what the last poll returned; 0 before the first
    // The sockets that it reported; valid until the set is polled or changed.
    virtual std::span<const i4_ready> readyOnes() const = 0;
    virtual ~i4_socket_set() = default;

    // The owner is the caller's, who finds it in readyOnes(). The same descriptor may be added twice.
    virtual void add(int descriptor, u32 mask, i4_set_owner* owner) = 0;
    virtual void change(int descriptor, u32 mask) = 0;      // asks for `mask` from now on; all its entries
    virtual void remove(int descriptor) = 0;                // all its entries; nothing for an unknown one
    virtual u32 check(int descriptor, u32 mask) const = 0;  // the bits of `mask` that the last poll reported
    // Ends a poll that is going on, or makes the next one return at once. Thread: any.
    virtual void wake() = 0;
};

// The set on epoll: the cost of a poll grows with the sockets that are ready, not with all.
// Thread: one, except wake(). Owns the epoll descriptor, and none of the sockets'.
class linux_socket_set : public i4_socket_set {
  public:
    linux_socket_set();
    linux_socket_set(const linux_socket_set&) = delete;
    linux_socket_set& operator=(const linux_socket_set&) = delete;

    i32 poll(i32 timeout_ms) override;
    i32 ready() const override { return result_; }
    std::span<const i4_ready> readyOnes() const override { return ready_; }
    void add(int descriptor, u32 mask, i4_set_owner* owner) override;
    void change(int descriptor, u32 mask) override;
    void remove(int descriptor) override;
    u32 check(int descriptor, u32 mask) const override;
    void wake() override;

    std::size_t count() const { return count_; }
    std::size_t capacity() const { return events_.size(); }  // grows by 32 at a time

  private:
    // What the set knows of a descriptor. Of one that was added twice, check() limits the answer to what the
    // first asked for.
    struct Entry {
        u32 times = 0;  // added; 0 for one that isn't in the set
        u32 first = 0;  // what the first of them asks for
        u32 all = 0;    // and all together
        u32 reported = 0;
        u64 poll = 0;  // the number of the poll that reported it
        bool refused = false;
        i4_set_owner* owner = nullptr;
    };
    Entry* find(int descriptor);
    const Entry* find(int descriptor) const;
    void control(int operation, int descriptor, Entry& entry);
    void report(Entry& entry, u32 mask);

    std::vector<Entry> entries_;  // by descriptor
    std::vector<epoll_event> events_;
    std::vector<i4_ready> ready_;
    std::vector<int> refused_;  // that the system takes into no set: always readable and in error
    std::size_t count_ = 0;
    u64 polls_ = 0;
    i32 result_ = 0;
    const i4_descriptor epoll_;
    const i4_descriptor wake_;
};
