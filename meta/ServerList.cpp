#include "meta/ServerList.h"

ServerMeta* ServerList::find(u32 ip, u32 port) {
    return firstOf<ServerIndex>(
        {ip, port}, [&](const ServerMeta& server) { return server.ip == ip && server.port == port; });
}

bool ServerList::addIfNew(std::unique_ptr<ServerMeta> server) {
    const i4_guard guard(*this);
    if (find(server->ip, server->port)) return false;
    addUnsafe(server.release());
    return true;
}

void ServerList::addOrUpdate(const ServerMeta* server) {
    if (!server || server->ip == 0) return;
    const i4_guard guard(*this);
    if (ServerMeta* listed = find(server->ip, server->port)) {
        listed->copyFrom(server);
        return;
    }
    addUnsafe(copyOf(*server).release());
}
