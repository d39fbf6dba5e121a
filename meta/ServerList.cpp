#include "meta/ServerList.h"

ServerMeta* ServerList::find(u32 ip, u32 port) {
    if (byAddress_.startBuilding()) {
        for (Cursor c; ServerMeta* server = next(c);) byAddress_.add(*server);
    }
    return byAddress_.first({ip, port},
                            [&](const ServerMeta& server) { return server.ip == ip && server.port == port; });
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

void ServerList::indexChange(Meta* record, const std::function<void()>& change) {
    auto& server = *static_cast<ServerMeta*>(record);
    const Address old = addressOf(server);
    change();
    byAddress_.rekey(server, old);
}
