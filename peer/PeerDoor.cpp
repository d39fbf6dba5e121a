#include "peer/PeerDoor.h"

#include "i4min/network/socket.h"
#include "peer/Peer.h"
#include "peer/PeerNeeds.h"
#include "transport/SocketPool.h"

bool PeerDoor::canAccept() { return pool().count < 2 * needs_.core.preferences.maxCon; }

Ref<Connection> PeerDoor::newConnection(std::unique_ptr<i4_socket> accepted) {
    return makeRef<Peer>(pool(), needs_, std::move(accepted));
}
