// DoorTask, the listening socket that makes new connections.
#pragma once

#include "transport/Endpoint.h"

// Accepts one connection each turn, asks canAccept() and hands what newConnection() makes of it to the
// pool. When the system has no descriptor left, it says so once and tries again when a connection has
// gone or a second has passed.
// Thread: as Connection; listen() by its owner.
class DoorTask : public Endpoint {
  public:
    DoorTask(SocketPool& pool, u32 port);

    bool canAccept() override;  // true
    // The connection for a socket that came in; the pool takes it. An empty one drops the socket.
    virtual Ref<Connection> newConnection(std::unique_ptr<i4_socket> socket) = 0;

    // Opens the port, and tells the user where it can't be opened. The time counts only with a proxy,
    // which is asked to listen in our place. True if it listens; nothing happens where it does already.
    bool listen(i32 timeout_ms);

    const u32 doorPort;  // 0 asks for any that is free

  protected:
    u32 wantedEvents() override;
    bool takesTurn() override;
    void turn() override;
    bool isWatched() const override { return resting_; }

  private:
    void outOfDescriptors();

    bool resting_ = false;  // doesn't ask for connections until a descriptor may be free
    bool told_ = false;     // that there is no descriptor
    u32 restedAt_ = 0;      // ticks
    u32 leftAtRest_ = 0;    // connections that had left the pool then
};
