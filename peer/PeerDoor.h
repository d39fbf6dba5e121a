// PeerDoor, the listener that accepts connections of other clients.
#pragma once

#include "transport/DoorTask.h"

struct PeerNeeds;

// Thread: see DoorTask.
class PeerDoor : public DoorTask {
  public:
    PeerDoor(SocketPool& socketPool, const PeerNeeds& needs, u16 listenPort)
        : DoorTask(socketPool, listenPort), needs_(needs) {}
    bool canAccept() override;  // while the pool has less than twice maxCon connections
    Ref<Connection> newConnection(std::unique_ptr<i4_socket> accepted) override;

  private:
    const PeerNeeds& needs_;
};
