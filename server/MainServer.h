// MainServer, the one TCP connection that the client holds to an index server.
#pragma once

#include "meta/MD4Hash.h"
#include "meta/ServerMeta.h"
#include "transport/Connection.h"

class FileList;
class Search;
class ServerDesk;
struct ServerNeeds;

// server/MainServer.cpp has the table of the messages.
//
//   state           entered by                  left by
//   connecting      ServerPool::tryNext         connected, connectFailed
//   waiting for ID  connected                   ClientIdChange, the connection's end
//   online          ClientIdChange              the connection's end
//
// Thread: handlers and gone() as Connection, connected() on a Worker's; requests on any: each queues one
// packet.
class MainServer : public Connection {
  public:
    MainServer(SocketPool& pool, ServerDesk& desk, const ServerNeeds& needs, const ServerMeta& server);

    bool handleMessage(u8 opcode, i4_ram_file_class& stream) override;
    void connected() override;  // logs on

    void requestSources(const MD4Hash& hash);
    // Has the server ask a client of its own, which nobody can reach, to call us.
    void requestCallback(u32 clientId);
    void publish(const FileList& files);
    void sendSearch(const Search& search);
    void sendAlternateSearch(const Search& search);
    void moreResults();
    // It has given us an ID, and takes requests. Thread: any.
    bool isLoggedOn() const { return loggedOn_ != 0; }

  protected:
    void gone() override;
    u32 bodyLimit() const override;   // 64 KiB until the log-on's answer, then 16 MiB
    u32 stallLimit() const override;  // none: the connection has no time-out of our own
    const OpcodeTable* opcodes() const override;

  private:
    struct Table;  // which message goes to which of these
    void gotOutOfDate();
    void gotStatus(i4_file& stream);
    void gotCallbackFailed(i4_file& stream);
    void gotMessage(i4_file& stream);
    void gotDroppedText(i4_file& stream);
    void gotDroppedUser(i4_file& stream);
    bool gotServerList(i4_file& stream);
    bool gotSearchResults(i4_file& stream);
    bool gotCallbackAsked(i4_file& stream);
    bool gotClientId(i4_file& stream);
    bool gotServerIdent(i4_file& stream);
    bool gotSources(i4_file& stream);
    bool gotUsers(i4_file& stream);
    void sendTree(u8 opcode, const Search& search);

    ServerDesk& desk_;
    const ServerNeeds& needs_;
    Relaxed<u8> loggedOn_;
    ServerMeta server_;  // a copy of the list's entry; of the pool's thread once connected
};
