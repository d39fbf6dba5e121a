// ServerPool: the list of index servers and the choice of the one to log on to.
#pragma once

#include <deque>
#include <memory>
#include <vector>

#include "core/MessageQ.h"
#include "i4min/memory/mutex.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/ServerList.h"
#include "server/ServerDesk.h"
#include "server/ServerNeeds.h"
#include "server/SourceFinder.h"

class ExServerAnnex;
class MainServer;
class Search;
class SocketPool;
class i4_file;

// Holds the server list, pings its entries, and connects to one server at a time.
//
//   state       connecting  mainServer   entered by
//   idle        0           none         start; queue empty; disconnect; a logged-on connection ended
//   trying      1           none         tryNext
//   logging on  1           set          MainServer::connected
//   connected   0           set          stopTrying
//
// Thread: any; connect, disconnect, tryNext and the search functions run on MessageQ's thread.
// Lock order: lock_, then the list's lock.
// Owns: the list, the annex, one reference to the current MainServer.
class ServerPool : public ServerDesk, public SourceFinder {
  public:
    explicit ServerPool(const ServerNeeds& needs);
    virtual ~ServerPool();

    // The list.
    bool addServer(u32 ip, u16 port) override;  // false if ip or port is 0
    bool hasRoomForServers() override { return servers_.count() < mostServers; }
    void removeServer(u32 ip, u16 port);
    void gotServerInfo(const ServerMeta& server) override;
    void gotPing(u32 ip, u16 port, i32 ping, u32 users, u32 files) override;
    void load(const char* path);
    void merge(const char* path);  // message 25
    ServerList& servers() { return servers_; }
    bool isListed(const ServerAddress& address) override;

    void setSocketPool(SocketPool& pool);

    // The connection.
    void connect(const ServerAddress* target);  // message 2; null tries all servers, best rating first
    void disconnect();                          // message 3
    void tryNext();                             // message 4
    void stopTrying() override;
    void serverFailed(u32 ip) override;
    void setMainServer(MainServer* server) override;
    void mainServerGone(MainServer* server) override;
    Ref<MainServer> mainServer() const;  // empty if there is none
    ServerAddress currentAddress() const override;
    bool isOnline() const override;

    // Routing.
    void search(const Search& search, bool alternate);        // messages 5 and 6
    void moreResults();                                       // message 7
    void extendSearch(const Search& search, bool alternate);  // messages 8 and 9
    // Each source is recorded with the server that reported it, because a callback request for it must go to
    // that server.
    void gotSources(i4_file& stream, const ServerAddress& from) override;
    bool findSources(const ServerAddress& address, const MD4Hash& hash) override;
    // Returns false and sends nothing unless logged on to a server.
    bool requestCallback(u32 serverIp, u16 serverPort, u32 clientId);
    void listSourceServers(std::vector<ServerAsk>& out) override;
    void tick(i32 elapsedMs);
    i32 untilDue();  // ms until tick() has work; the maximum i32 if never

  private:
    static constexpr u32 mostServers = 10'000;  // a longer list takes no servers from other servers

    void fillQueue() REQUIRES(lock_);
    void tryNextLocked() REQUIRES(lock_);
    bool connectTo(const ServerAddress& target) REQUIRES(lock_);
    bool pingDue(ServerMeta& server) REQUIRES(servers_);

    void say(u32 number) const;

    const ServerNeeds& needs_;
    i4_mutex lock_{LockRank::serverPool};
    bool connecting_ GUARDED_BY(lock_) = false;
    std::deque<std::unique_ptr<ServerMeta>> queue_ GUARDED_BY(lock_);  // still to be tried
    Ref<MainServer> attempt_ GUARDED_BY(lock_);  // until it logs on, fails or is cancelled
    u32 extendIndex_ = 0;  // index of the next server for an extended search; MessageQ's thread only
    SocketPool* pool_ = nullptr;
    Ref<ExServerAnnex> annex_;  // set once, before the threads start
    mutable i4_mutex mainLock_{LockRank::leaf};
    Ref<MainServer> mainServer_ GUARDED_BY(mainLock_);
    ServerList servers_;
};
