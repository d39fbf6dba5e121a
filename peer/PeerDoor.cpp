#include "peer/PeerDoor.h"

#include "i4min/network/socket.h"
#include "peer/Peer.h"
#include "peer/PeerNeeds.h"
#include "transport/SocketPool.h"

PeerDoor::~PeerDoor() = default;

bool PeerDoor::canAccept() { return pool().count < 2 * needs_.core.preferences.maxCon; }

Ref<Connection> PeerDoor::newConnection(std::unique_ptr<i4_socket> accepted) {
    makeRoom();
    return newest_.emplace_back(makeRef<Peer>(pool(), needs_, std::move(accepted)));
}

void PeerDoor::makeRoom() {
    std::erase_if(newest_, [](const Ref<Peer>& peer) { return peer->isDead() || peer->isKnown(); });
    if (static_cast<i32>(newest_.size()) < needs_.core.preferences.maxCon) return;
    newest_.front()->close();
    newest_.erase(newest_.begin());
}
