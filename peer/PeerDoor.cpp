#include "peer/PeerDoor.h"

#include "app/Preferences.h"
#include "i4min/network/socket.h"
#include "peer/Peer.h"
#include "transport/SocketPool.h"

bool PeerDoor::canAccept() { return pool() && pool()->count < 2 * preferences.maxCon; }

Connection* PeerDoor::newConnection(std::unique_ptr<i4_socket> accepted, SocketPool* socketPool) {
    return new Peer(std::move(accepted), socketPool);
}
