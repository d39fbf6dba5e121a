// ServerPool keeps the list of index servers alive and decides which of them the client logs on to.
#pragma once

#include <deque>
#include <memory>
#include <vector>

#include "app/MessageQ.h"
#include "i4min/memory/mutex.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/ServerList.h"
#include "server/ServerAsk.h"

class ExServerAnnex;
class MainServer;
class Search;
class SocketPool;
class i4_file;
struct MD4Hash;

//   state       connecting  mainServer   entered by
//   idle        0           none         start; the queue ran out; disconnect; a logged-on one's end
//   trying      1           none         tryNext
//   logging on  1           set          MainServer::connected
//   connected   0           set          stopTrying
//
// Thread: any, but for connect, disconnect, tryNext and the search operations: MessageQ's.
// Lock order: its own lock, then the list's.
// Owns: the list, the annex, one reference on the current MainServer.
class ServerPool {
  public:
    ServerPool();
    ~ServerPool();

    // The list.
    bool addServer(u32 ip, u16 port);  // false for an ip or port of 0
    void removeServer(u32 ip, u16 port);
    void gotServerInfo(const ServerMeta& server);
    void gotPing(u32 ip, u16 port, i32 ping, u32 users, u32 files);
    void load(const char* path);
    void merge(const char* path);  // message 25
    ServerList& servers() { return servers_; }
    bool isListed(const ServerAddress& address);

    void setSocketPool(SocketPool* pool);

    // The connection.
    void connect(const ServerAddress* target);  // message 2; null for the best
    void disconnect();                          // message 3
    void tryNext();                             // message 4
    void stopTrying();
    void serverFailed(u32 ip);
    void setMainServer(MainServer* server);
    void mainServerGone(MainServer* server);
    Ref<MainServer> mainServer() const;    // empty where there is none
    ServerAddress currentAddress() const;  // of the current server, zero where there is none
    bool isOnline() const;                 // it has logged us on

    // Routing.
    void search(const Search& search, bool alternate);        // messages 5 and 6
    void moreResults();                                       // message 7
    void extendSearch(const Search& search, bool alternate);  // messages 8 and 9
    // What FoundSources holds, hash first: the download's sources, which remember the server that named them,
    // since a callback request for one goes to that very server. Raises on a short stream.
    void gotSources(i4_file& stream, const ServerAddress& from);
    void callbackFailed(u32 serverIp, u32 clientId);
    // These two are false, and nothing goes out, until a server has logged us on.
    bool findSources(const ServerAddress& address, const MD4Hash& hash);
    bool requestCallback(u32 serverIp, u16 serverPort, u32 clientId);
    void listSourceServers(std::vector<ServerAsk>& out);
    void tick(i32 elapsedMs);

  private:
    // The servers by rating, the best first, are tried one after the other.
    void fillQueue() REQUIRES(lock_);
    void tryNextLocked() REQUIRES(lock_);
    bool connectTo(const ServerAddress& target) REQUIRES(lock_);
    bool pingDue(ServerMeta& server) REQUIRES(servers_);

    i4_mutex lock_{LockRank::serverPool};
    bool connecting_ GUARDED_BY(lock_) = false;
    std::deque<std::unique_ptr<ServerMeta>> queue_ GUARDED_BY(lock_);  // still to be tried
    Ref<MainServer> attempt_ GUARDED_BY(lock_);  // until it logs us on, fails, or is given up
    u32 extendIndex_ = 0;  // the next server of the list for an extended search; of MessageQ's thread
    SocketPool* pool_ = nullptr;
    Ref<ExServerAnnex> annex_;  // set once, before the threads start
    mutable i4_mutex mainLock_{LockRank::leaf};
    Ref<MainServer> mainServer_ GUARDED_BY(mainLock_);
    ServerList servers_;
};

extern ServerPool serverPool;
