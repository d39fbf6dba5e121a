// SimSocket: one end of a simulated stream, a listener, or a UDP socket.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "i4min/network/socket.h"
#include "sim/SimNetwork.h"
#include "sim/SimSocketSet.h"

// One end of a stream: what it sends, and what it has received.
// Thread: the simulation's. Owned by its SimStream.
struct SimStreamEnd {
    SimMachine* machine = nullptr;
    SimSocket* socket = nullptr;  // null once it is closed
    u32 ip = 0;                   // as the other side sees it
    u16 port = 0;
    std::deque<std::vector<u8>> toSend;
    std::size_t toSendBytes = 0;
    std::deque<std::vector<u8>> received;
    std::size_t taken = 0;          // bytes already read of the first piece of `received`
    std::size_t receivedBytes = 0;  // bytes waiting to be read
    std::size_t onTheWay = 0;       // bytes sent that the other end hasn't received yet
    bool closed = false;            // it sends nothing more
    bool endSent = false;
    bool otherEnded = false;
    bool queued = false;  // in its machine's pipe
    i64 lastArrival = 0;  // arrival of the last piece that this end has sent
};

// The state shared by both ends of a stream.
// Thread: the simulation's. Owned by the sockets and events that refer to it.
struct SimStream {
    SimStreamEnd ends[2];
    bool broken = false;  // was reset
    u64 number = 0;
};

// Implements a socket on a simulated network.
// Thread: the simulation's. Owns: connections and datagrams that wait to be accepted or read. Borrows: the
// machine.
class SimSocket final : public i4_socket, private SimMember {
  public:
    enum class Kind { connecting, stream, refused, door, datagrams };
    SimSocket(SimMachine& machine, Kind kind, u16 port);
    SimSocket(SimMachine& machine, std::shared_ptr<SimStream> stream, int side);
    ~SimSocket() override;

    i32 read(std::span<u8> to) override;
    i32 write(std::span<const u8> bytes) override;
    i32 write_more(std::span<const u8> bytes) override { return write(bytes); }
    bool accept(std::unique_ptr<i4_socket>& out) override;
    i32 read_from(std::span<u8> to, std::unique_ptr<i4_address>* out_address) override;
    i32 write_to(std::span<const u8> bytes, const i4_address& address) override;
    u32 ready(u32 mask, i32 timeout_ms, i4_status_class* status) override;
    void add_to_set(i4_socket_set& set, u32 mask, i4_set_owner* owner) override;
    void remove_from_set(i4_socket_set& set) override;
    u32 check_in_set(const i4_socket_set& set, u32 mask) override;
    void change_in_set(i4_socket_set& set, u32 mask) override;
    bool cancel() override;
    void set_blocking(bool) override {}
    std::unique_ptr<i4_address> local_address() override;
    std::unique_ptr<i4_address> remote_address() override;
    bool atEnd() const override { return atEnd_; }

  private:
    friend class SimNetwork;
    friend class SimMachine;
    struct Datagram {
        std::string bytes;
        u32 ip;
        u16 port;
    };
    SimStreamEnd& own() const { return stream_->ends[side_]; }
    SimStreamEnd& other() const { return stream_->ends[1 - side_]; }
    u32 readiness() const override;
    void close();

    SimMachine& machine_;
    Kind kind_;
    u16 port_;
    u64 call_ = 0;  // number of the connect in progress
    std::shared_ptr<SimStream> stream_;
    int side_ = 0;
    bool cancelled_ = false;
    bool atEnd_ = false;
    std::deque<std::unique_ptr<SimSocket>> arrived_;  // connections that wait to be accepted
    std::deque<Datagram> datagrams_;
};
