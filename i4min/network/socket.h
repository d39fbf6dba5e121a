// Sockets: streams that can also accept, carry datagrams, wait, and be cancelled by another thread.
#pragma once

#include <atomic>
#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/types.h"
#include "i4min/network/address.h"
#include "i4min/network/socket_set.h"

enum i4_socket_type : u32 {
    I4_DATAGRAM = 0,
    I4_STREAM = 1,
};

// Receives the progress of a long wait, on the waiting thread.
class i4_status_class {
  public:
    virtual bool update(f32 fraction) = 0;  // the part of the time that has gone; false gives up
    virtual void setText(const i4_string& text) = 0;

  protected:
    ~i4_status_class() = default;
};

// A socket. Thread: one at a time, but for cancel(), which any may call while the object lives. Nothing here
// raises.
class i4_socket : public i4_file {
  public:
    // i4_file's read and write: the bytes moved; 0 when the call would block; -1 on an error, or when the
    // socket was cancelled. read gives 0 at the end of the stream too, and atEnd() tells the two apart.

    // Takes a connection that came in, and waits for one on a blocking socket. False when there is none;
    // errno then tells why.
    [[nodiscard]] virtual bool accept(std::unique_ptr<i4_socket>& out) = 0;
    // A datagram and, where asked for, its sender. Returns the system's result: below 0 when there is none.
    virtual i32 read_from(std::span<u8> to, std::unique_ptr<i4_address>* out_address) = 0;
    virtual i32 write_to(std::span<const u8> bytes, const i4_address& address) = 0;
    // Waits at most that long (-1: without a limit) for any bit of `mask`, an error or a hang-up. Returns the
    // mask of what there is, 0 when the time ran out or the wait was cancelled. With a status, which is told
    // of the time that has gone, anything ready gives 1, and 0 is also given when the status gives up.
    virtual u32 ready(u32 mask, i32 timeout_ms, i4_status_class* status) = 0;
    // The owner is found again in the set's readyOnes().
    virtual void add_to_set(i4_socket_set& set, u32 mask, i4_set_owner* owner = nullptr) = 0;
    virtual void remove_from_set(i4_socket_set& set) = 0;
    virtual u32 check_in_set(const i4_socket_set& set, u32 mask) = 0;
    // Ends the call that another thread is blocked in, and makes this and every later call fail; without such
    // a call, closes the connection. False if it was cancelled before. The descriptor goes back to the system
    // with the object, so that no other socket gets its number meanwhile.
    virtual bool cancel() = 0;
    virtual void set_blocking(bool blocking) = 0;
    virtual std::unique_ptr<i4_address> local_address() = 0;
    virtual std::unique_ptr<i4_address> remote_address() = 0;  // null where there is none

    // Changes what the set asks about this socket.
    virtual void change_in_set(i4_socket_set& set, u32 mask) = 0;
    // True once a read has met the end of the stream: the other side has closed.
    virtual bool atEnd() const = 0;
    // As write, telling that more follows at once: a header and its body then share a segment.
    virtual i32 write_more(std::span<const u8> bytes) = 0;
    // Has the system notice within some minutes that the other side's machine has gone.
    virtual void keepAlive() {}
    // Takes a socket that is on its way on as far as it goes without waiting: as ready(), 0 for not yet.
    virtual u32 proceed(u32 mask) { return ready(mask, 0, nullptr); }
    // The events that the next call of proceed() wants.
    virtual u32 awaited() const { return I4_SELECT_WRITE | I4_SELECT_ERROR; }
};

class i4_blocking_call;

// An IPv4 socket. Owns its descriptor. Thread: one at a time, except cancel(). lock_ guards the call that
// cancel() has to wake. Errors: as i4_socket tells; error() for a socket that the system didn't give.
class i4_tcpip_sock : public i4_socket {
  public:
    explicit i4_tcpip_sock(u32 type);         // a new one; see error()
    i4_tcpip_sock(int descriptor, u32 type);  // takes over a descriptor
    i4_tcpip_sock(const i4_tcpip_sock&) = delete;
    i4_tcpip_sock& operator=(const i4_tcpip_sock&) = delete;
    ~i4_tcpip_sock() override;

    i32 read(std::span<u8> to) override;
    i32 write(std::span<const u8> bytes) override;

    bool accept(std::unique_ptr<i4_socket>& out) override;
    i32 read_from(std::span<u8> to, std::unique_ptr<i4_address>* out_address) override;
    i32 write_to(std::span<const u8> bytes, const i4_address& address) override;
    u32 ready(u32 mask, i32 timeout_ms, i4_status_class* status) override;
    void add_to_set(i4_socket_set& set, u32 mask, i4_set_owner* owner) override;
    void remove_from_set(i4_socket_set& set) override;
    u32 check_in_set(const i4_socket_set& set, u32 mask) override;
    bool cancel() override EXCLUDES(lock_);
    void set_blocking(bool blocking) override;
    std::unique_ptr<i4_address> local_address() override;
    std::unique_ptr<i4_address> remote_address() override;
    void change_in_set(i4_socket_set& set, u32 mask) override;
    bool atEnd() const override { return at_end_; }
    i32 write_more(std::span<const u8> bytes) override;
    void keepAlive() override;

    // Connects. Blocking: waits for the outcome, which cancel() may cut short, and returns it. Otherwise only
    // starts, and returns true: ready() for writing then tells the outcome.
    [[nodiscard]] bool connect(const i4_tcpip_address& to, bool blocking);
    bool error() const { return error_; }  // the system gave no socket
    int descriptor() const { return fd_; }
    u32 type() const { return type_; }

    // Gives the descriptor away, -1 where there is none any more; every later call fails.
    [[nodiscard]] int release_descriptor() EXCLUDES(lock_);

  private:
    friend class i4_blocking_call;

    u32 wait(u32 mask, i32 timeout_ms);
    i32 send(std::span<const u8> bytes, int flags);
    u32 waitWithStatus(u32 mask, i32 timeout_ms, i4_status_class& status);

    i4_mutex lock_{LockRank::socket};
    i4_blocking_call* pending_ GUARDED_BY(lock_) = nullptr;
    std::atomic<bool> closed_{false};  // changes under lock_
    int fd_;
    const u32 type_;
    bool error_ = false;
    bool at_end_ = false;
    bool blocking_ = true;
    bool accepts_ = false;  // the descriptor itself no longer blocks: accept waits in poll
};
