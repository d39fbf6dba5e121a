// ServerDesk: the interface to which connections to servers report.
#pragma once

#include "core/MessageQ.h"
#include "i4min/memory/types.h"

class MainServer;
class ServerMeta;
class i4_file;

// What MainServer and ExServerAnnex report: new addresses, answered pings, sources, and changes of the
// connection. ServerPool implements it. Callers keep ownership of what they pass.
// Thread: any.
class ServerDesk {
  public:
    virtual bool addServer(u32 ip, u16 port) = 0;
    virtual bool hasRoomForServers() = 0;
    virtual bool isListed(const ServerAddress& address) = 0;
    virtual void gotServerInfo(const ServerMeta& server) = 0;
    virtual void gotPing(u32 ip, u16 port, i32 ping, u32 users, u32 files) = 0;
    // Reads the body of a FoundSources message, starting with the hash. Raises an error if the stream is too
    // short.
    virtual void gotSources(i4_file& stream, const ServerAddress& from) = 0;
    virtual void setMainServer(MainServer* server) = 0;
    virtual void mainServerGone(MainServer* server) = 0;
    virtual void serverFailed(u32 ip) = 0;
    virtual void stopTrying() = 0;

  protected:
    ~ServerDesk() = default;
};
