// PeerDoor, the listener that accepts connections of other clients.
#pragma once

#include "transport/DoorTask.h"

// Thread: see DoorTask.
class PeerDoor : public DoorTask {
  public:
    PeerDoor(SocketPool* socketPool, u16 listenPort) : DoorTask(socketPool, listenPort) {}
    bool canAccept() override;  // while the pool has less than twice maxCon connections
    Connection* newConnection(std::unique_ptr<i4_socket> accepted, SocketPool* socketPool) override;
};
