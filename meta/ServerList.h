// ServerList, a list of index servers: server.met.
#pragma once

#include <memory>
#include <utility>

#include "meta/RecordIndex.h"
#include "meta/ServerMeta.h"

using ServerKey = std::pair<u32, u32>;  // ip and port
inline ServerKey serverKeyOf(const ServerMeta& server) { return {server.ip, server.port}; }
using ServerIndex = RecordIndex<ServerMeta, ServerKey, serverKeyOf>;

// Thread: see MetaList. Look-ups go through an index by address.
class ServerList : public IndexedList<ServerMeta, ServerIndex> {
  public:
    using IndexedList::IndexedList;

    // The first with both, or null. For a caller that holds lock().
    ServerMeta* find(u32 ip, u32 port) REQUIRES(this);
    // False, and the server is destroyed, if its address is there.
    bool addIfNew(std::unique_ptr<ServerMeta> server);
    // The listed record of that address takes a copy of the server, or a copy is appended, which belongs to
    // the owner of the list's records. Null, or an ip of 0, does nothing.
    void addOrUpdate(const ServerMeta* server);
};
