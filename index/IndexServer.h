// IndexServer, the sockets of an index server, in one loop.
#pragma once

#include <atomic>
#include <memory>
#include <unordered_map>
#include <vector>

#include "host/Host.h"
#include "i4min/network/socket.h"
#include "i4min/network/socket_set.h"
#include "i4min/threads/linux/Thread.h"
#include "index/FrameReader.h"
#include "index/IndexService.h"

// Thread: listen() before start(); close() after stop(). Owns: the sockets and the service. Borrows: host and
// log.
class IndexServer : public Thread, private IndexNetwork {
  public:
    IndexServer(Host& host, IndexIdentity identity, IndexLimits limits, EventLog& log);
    ~IndexServer() override;

    // Binds the port for TCP and, 4 above it, for datagrams; 0 takes a port for which both are free. False,
    // with a line in the log, if that can't be. An address of 0 is every address.
    bool listen(u32 ip, u32 port);
    u32 port() const { return port_; }
    Rest run() override;
    i4_socket_set* restingSet() const override { return set_.get(); }
    // Says goodbye in the log, and drops every client.
    void close();
    const IndexService& service() const { return service_; }

  private:
    enum class Kind : u32 { door, datagrams, client, doorTest };
    // What the set's reports are about.
    struct Watched : i4_set_owner {
        explicit Watched(Kind what) : kind(what) {}
        Kind kind;
        ClientNumber number = 0;
    };
    struct Connection {
        std::unique_ptr<i4_socket> socket;
        IndexSession* session = nullptr;
        FrameReader in;
        u32 mask = 0;          // that the set looks for
        std::size_t held = 0;  // what it counts for in held_
        Watched watched{Kind::client};
    };
    struct DoorTest {
        std::unique_ptr<i4_socket> socket;
        u64 until = 0;
        bool inSet = false;
        Watched watched{Kind::doorTest};
    };

    void testDoor(const IndexSession& session) override;
    void sendDatagram(const NetAddress& to, ByteSpan bytes) override;

    bool tryListen(u32 ip, u32 port);
    u64 milliseconds() const;
    void handleReady();
    void handle(const Watched& watched, u32 mask);
    void acceptAll();
    void readDatagrams();
    void readClient(Connection& connection);
    // Hands on the packets that have arrived, as far as the session wants any.
    void handOn(Connection& connection);
    bool flush(Connection& connection);  // false if the socket has failed
    // Sends, goes on reading or drops, as the session now needs it.
    void settle(Connection& connection);
    void settleTouched();
    void close(ClientNumber number);
    void endDoorTest(ClientNumber number, bool reachable);
    void tick();
    Rest untilDue() const;

    Host& host_;
    IndexService service_;
    EventLog& log_;
    const std::unique_ptr<i4_socket_set> set_;
    std::unique_ptr<i4_socket> door_;
    std::unique_ptr<i4_socket> datagrams_;
    Watched doorWatched_{Kind::door};
    Watched datagramsWatched_{Kind::datagrams};
    u32 port_ = 0;
    u64 now_;
    u64 tickAt_ = 0;
    u64 acceptAgainAt_ = 0;  // 0 while the door is watched
    u64 held_ = 0;           // bytes of unfinished packets and of lists that are being taken in
    std::unordered_map<ClientNumber, Connection> connections_;
    std::unordered_map<ClientNumber, DoorTest> doorTests_;
    std::vector<ClientNumber> waiting_;  // clients with packets that were left for the next turn
    Bytes scratch_;
};
