// ServerList, a list of index servers: server.met.
#pragma once

#include <memory>
#include <utility>

#include "meta/MetaList.h"
#include "meta/RecordIndex.h"
#include "meta/ServerMeta.h"

// Thread: see MetaList. Look-ups go through an index by address, so that ip and port of a listed record
// change through RecordList::change alone.
class ServerList : public RecordList<ServerMeta> {
  public:
    using RecordList<ServerMeta>::RecordList;

    // The first with both, or null. For a caller that holds lock().
    ServerMeta* find(u32 ip, u32 port) REQUIRES(this);
    // False, and the server is destroyed, if its address is there.
    bool addIfNew(std::unique_ptr<ServerMeta> server);
    // The listed record of that address takes a copy of the server, or a copy is appended, which belongs to
    // the owner of the list's records. Null, or an ip of 0, does nothing.
    void addOrUpdate(const ServerMeta* server);

  protected:
    void indexAdd(Meta* record) override { byAddress_.add(*static_cast<ServerMeta*>(record)); }
    void indexRemove(Meta* record) override { byAddress_.remove(*static_cast<ServerMeta*>(record)); }
    void indexDrop() override { byAddress_.drop(); }
    bool indexCovers(u32 records) const override { return byAddress_.covers(records); }
    void indexChange(Meta* record, const std::function<void()>& change) override;

  private:
    using Address = std::pair<u32, u32>;
    static Address addressOf(const ServerMeta& server) { return {server.ip, server.port}; }

    RecordIndex<ServerMeta, Address, &ServerList::addressOf> byAddress_;
};
