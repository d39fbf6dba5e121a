// SimNetwork: simulated machines and the lines between them.
#pragma once

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "i4min/network/protocol.h"
#include "sim/Simulation.h"

class SimNetwork;
class SimSocket;
struct SimStream;
struct SimStreamEnd;

// The properties of a machine's or router's line.
// A plain value.
struct Link {
    i64 upBytesPerSecond = 0;  // 0 for no limit
    i64 downBytesPerSecond = 0;
    i32 latencyMs = 25;       // one way, to the middle of the network
    i32 jitterMs = 0;         // at most this much more
    bool firewalled = false;  // drops incoming connects, and datagrams that aren't answers
    double loss = 0;          // probability: a datagram is lost; a piece of a stream arrives 200 ms late
};

// One direction of a line. Waiting streams send pieces of equal size in turn, so each gets a fair share.
// Thread: the simulation's.
class SimPipe {
  public:
    explicit SimPipe(i64 bytesPerSecond) : rate_(bytesPerSecond) {}
    i64 rate() const { return rate_; }
    // Returns when a piece that arrives at time `at` has passed.
    i64 pass(i64 at, std::size_t bytes);

    std::deque<std::pair<std::shared_ptr<SimStream>, int>>
        waiting;  // streams with data to send, and their side
    bool busy = false;

  private:
    const i64 rate_;
    i64 free_ = 0;
};

// A line shared by several machines. They have one external address and can't be called from outside.
// Thread: the simulation's.
class SimRouter {
  public:
    SimRouter(u32 routerAddress, const Link& routerLink)
        : address(routerAddress),
          link(routerLink),
          up(link.upBytesPerSecond),
          down(link.downBytesPerSecond) {}
    const u32 address;
    const Link link;
    SimPipe up;
    SimPipe down;
};

// One machine: its addresses, line and ports, and the network as its programs see it.
// Thread: the simulation's. Borrows: the network and the router.
class SimMachine final : public i4_protocol {
  public:
    SimMachine(SimNetwork& network, u32 address, const Link& link, SimRouter* router);
    ~SimMachine() override;

    u32 address() const { return address_; }
    // The address that others see: the router's, if there is one.
    u32 outerAddress() const { return router_ ? router_->address : address_; }
    const Link& link() const { return link_; }
    SimPipe& up() { return router_ ? router_->up : up_; }
    SimPipe& down() { return router_ ? router_->down : down_; }
    bool takesCalls() const { return !link_.firewalled && !router_ && !gone; }

    bool gone = false;  // without power: nothing is sent or received
    int island = 0;     // machines on different islands can't reach each other

    const char* protocol_name() const override { return "simulated"; }
    u32 protocol_type() const override { return 0; }
    std::unique_ptr<i4_socket_set> new_socket_set(u32 size) override;
    std::unique_ptr<i4_address> resolve(const char* name, u16 port, u32 flags) override;
    std::unique_ptr<i4_socket> connect(const i4_address& address, u32 type, bool blocking) override;
    bool get_local_host(i4_host_info& out) override;
    std::unique_ptr<i4_socket> listen(u16 port, i32 timeout_ms, u32 type, const i4_address* target) override;
    std::unique_ptr<i4_socket> listenAt(u32 ip, u16 port, u32 type) override;
    std::unique_ptr<i4_socket> datagrams() override;

  private:
    friend class SimSocket;
    friend class SimNetwork;
    u16 freePort();

    SimNetwork& network_;
    const u32 address_;
    const Link link_;
    SimRouter* const router_;
    SimPipe up_;
    SimPipe down_;
    std::map<u16, SimSocket*> doors_;
    std::map<u16, SimSocket*> datagramPorts_;
    std::set<std::pair<u32, u16>> asked_;  // destinations of its datagrams, whose answers get in
    u16 lastPort_ = 49151;
};

// A piece of a stream, or its end, that was carried from one machine to another.
// A plain value.
struct Carried {
    i64 at;
    u32 from;
    u32 to;
    std::size_t bytes;
};

// Connects the machines: resolves names, carries streams and datagrams, and simulates faults.
// Thread: the simulation's. Owns: the machines and routers.
class SimNetwork {
  public:
    explicit SimNetwork(Simulation& simulation) : simulation_(simulation) {}

    SimMachine& addMachine(u32 address, const Link& link = {}, SimRouter* router = nullptr);
    SimRouter& addRouter(u32 address, const Link& link);
    void addName(const std::string& name, u32 address) { names_[name] = address; }

    // Ends every stream between two machines with a reset.
    void reset(SimMachine& a, SimMachine& b);
    void resetAll(SimMachine& machine);
    // Ends the machine's streams with a reset once it has received `bytes` more bytes.
    void resetAfter(SimMachine& machine, u64 bytes);
    // Moves machines to an island; 0 is the default one.
    void split(const std::vector<SimMachine*>& machines, int island);
    // The machine loses its power.
    void vanish(SimMachine& machine) { machine.gone = true; }

    // Called for everything that is carried, for charts and counts.
    std::function<void(const Carried&)> onCarried;

    Simulation& simulation() { return simulation_; }

  private:
    friend class SimMachine;
    friend class SimSocket;
    friend struct SimStream;
    SimMachine* find(u32 outerAddress);
    bool areApart(const SimMachine& a, const SimMachine& b) const;
    // The latency of one way, with jitter.
    i64 latency(const SimMachine& a, const SimMachine& b);
    void call(SimSocket& caller, u32 address, u16 port);
    void answered(u64 number, SimMachine& from, SimMachine& to, const std::shared_ptr<SimStream>& stream);
    void sendDatagram(SimSocket& from, std::string bytes, u32 address, u16 port);
    void hasToSend(const std::shared_ptr<SimStream>& stream, int side);
    void hasToSendLater(SimPipe& pipe, const std::shared_ptr<SimStream>& stream, int side);
    void windowOpened(const std::shared_ptr<SimStream>& stream, int side);
    void serve(SimPipe& pipe);
    static std::vector<u8> takePiece(SimStreamEnd& end, std::size_t most);
    void carry(const std::shared_ptr<SimStream>& stream, int side, std::vector<u8> piece, i64 leaves);
    void deliver(const std::shared_ptr<SimStream>& stream, int side,
                 const std::shared_ptr<std::vector<u8>>& piece);
    void closed(const std::shared_ptr<SimStream>& stream, int side, bool loses);
    void sendEnd(const std::shared_ptr<SimStream>& stream, int side);
    void deliverEnd(const std::shared_ptr<SimStream>& stream, int side);
    void breakOff(const std::shared_ptr<SimStream>& stream);
    std::vector<std::shared_ptr<SimStream>> streams();

    Simulation& simulation_;
    std::vector<std::unique_ptr<SimRouter>> routers_;
    std::vector<std::unique_ptr<SimMachine>> machines_;
    std::map<u32, SimMachine*> byAddress_;
    std::map<std::string, u32> names_;
    std::vector<std::weak_ptr<SimStream>> streams_;
    std::map<const SimMachine*, u64>
        resetAfter_;                     // for look-up only: iterating by address would differ between runs
    std::map<u64, SimSocket*> callers_;  // sockets that are connecting
    u64 calls_ = 0;
    u64 streamsMade_ = 0;
};
