// IndexServer, the sockets of an index server: one thread, one epoll.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "i4min/file/descriptor.h"
#include "index/FrameReader.h"
#include "index/IndexService.h"

// Thread: the one that calls run(), from there on. Owns: the sockets and the service. Borrows: the log.
class IndexServer : private IndexNetwork {
  public:
    IndexServer(IndexIdentity identity, IndexLimits limits, EventLog& log);
    ~IndexServer() override;

    // Binds the port for TCP and, 4 above it, for datagrams; 0 takes a port for which both are free. False,
    // with a line in the log, if that can't be. An address of 0 is every address.
    bool listen(u32 ip, u32 port);
    u32 port() const { return port_; }
    // Serves until `stop` becomes readable.
    void run(int stop);

  private:
    enum class Kind : u32 { door, datagrams, stop, client, doorTest };
    struct Connection {
        i4_descriptor socket;
        IndexSession* session = nullptr;
        FrameReader in;
        u32 events = 0;        // that epoll looks for
        std::size_t held = 0;  // what it counts for in held_
    };
    struct DoorTest {
        i4_descriptor socket;
        u64 until = 0;
    };

    void testDoor(const IndexSession& session) override;
    void sendDatagram(const NetAddress& to, ByteSpan bytes) override;

    bool tryListen(u32 ip, u32 port);
    void watch(int operation, int descriptor, u32 events, Kind kind, u32 number);
    void handle(Kind kind, u32 number, u32 events);
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
    int waitTime();

    IndexService service_;
    EventLog& log_;
    i4_descriptor epoll_;
    i4_descriptor door_;
    i4_descriptor datagrams_;
    u32 port_ = 0;
    bool stopped_ = false;
    u64 now_ = 0;
    u64 tickAt_ = 0;
    u64 acceptAgainAt_ = 0;  // 0 while the door is watched
    u64 held_ = 0;           // bytes of unfinished packets and of lists that are being taken in
    std::unordered_map<ClientNumber, Connection> connections_;
    std::unordered_map<ClientNumber, DoorTest> doorTests_;
    std::vector<ClientNumber> waiting_;  // clients with packets that were left for the next turn
    Bytes scratch_;
};
