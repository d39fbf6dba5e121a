// PeerDoor: the listener that accepts connections from other clients.
#pragma once

#include "transport/DoorTask.h"

struct PeerNeeds;

// Makes a Peer of each accepted connection, and accepts none while the pool is full.
// Thread: as DoorTask. Borrows: the PeerNeeds.
class PeerDoor : public DoorTask {
  public:
    PeerDoor(SocketPool& socketPool, const PeerNeeds& needs, u16 listenPort)
        : DoorTask(socketPool, listenPort), needs_(needs) {}
    bool canAccept() override;  // while the pool has less than twice maxCon connections
    Ref<Connection> newConnection(std::unique_ptr<i4_socket> accepted) override;

  private:
    const PeerNeeds& needs_;
};
