// PeerDoor: the listener that accepts connections from other clients.
#pragma once

#include <vector>

#include "i4min/threads/linux/RefCounter.h"
#include "transport/DoorTask.h"

class Peer;
struct PeerNeeds;

// Makes a Peer of each accepted connection, and accepts none while the pool is full.
// Thread: as DoorTask. Borrows: the PeerNeeds.
class PeerDoor : public DoorTask {
  public:
    PeerDoor(SocketPool& socketPool, const PeerNeeds& needs, u16 listenPort)
        : DoorTask(socketPool, listenPort), needs_(needs) {}
    ~PeerDoor() override;
    bool canAccept() override;  // while the pool has less than twice maxCon connections
    // When maxCon connections have come in and not said hello, the oldest of them gives way.
    Ref<Connection> newConnection(std::unique_ptr<i4_socket> accepted) override;

  private:
    void makeRoom();

    const PeerNeeds& needs_;
    std::vector<Ref<Peer>> newest_;  // those that weren't known when the last one came, oldest first
};
