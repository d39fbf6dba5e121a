// DoorTask: a listening socket that accepts connections.
#pragma once

#include "transport/Endpoint.h"

// Accepts one connection per turn if canAccept() allows it, and adds the result of newConnection() to the
// pool. If the system has no file descriptor left, it reports that once and retries when a connection has
// ended or a second has passed.
// Thread: as Connection; listen() on the owner's.
class DoorTask : public Endpoint {
  public:
    DoorTask(SocketPool& pool, u32 port);

    bool canAccept() override;  // true
    // The connection for a socket that came in; the pool takes it. An empty one drops the socket.
    virtual Ref<Connection> newConnection(std::unique_ptr<i4_socket> socket) = 0;

    // Opens the port; prints a message if that fails. The timeout applies to a proxy, which then listens for
    // us. Returns true if it listens; does nothing if it did already.
    bool listen(i32 timeout_ms);

    const u32 doorPort;  // 0 for any free port

  protected:
    u32 wantedEvents() override;
    bool takesTurn() override;
    void turn() override;
    bool isWatched() const override { return resting_; }

  private:
    void outOfDescriptors();

    bool resting_ = false;   // doesn't accept until a descriptor may be free
    bool reported_ = false;  // the lack of descriptors was reported
    u32 restedAt_ = 0;       // ticks
    u32 leftAtRest_ = 0;     // connections that had left the pool by then
};
