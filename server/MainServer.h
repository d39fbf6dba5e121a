// MainServer: the client's TCP connection to an index server.
#pragma once

#include "meta/MD4Hash.h"
#include "meta/ServerMeta.h"
#include "transport/Connection.h"

class FileList;
class Search;
class ServerDesk;
struct ServerNeeds;

// The message table is in server/MainServer.cpp.
//
//   state           entered by                  left by
//   connecting      ServerPool::tryNext         connected, connectFailed
//   waiting for ID  connected                   ClientIdChange, the connection's end
//   online          ClientIdChange              the connection's end
//
// Thread: handlers and gone() run where Connection says, connected() runs on a worker. Any thread may call
// the request functions; each queues one packet.
class MainServer : public Connection {
  public:
    MainServer(SocketPool& pool, ServerDesk& desk, const ServerNeeds& needs, const ServerMeta& server);

    bool handleMessage(u8 opcode, i4_ram_file_class& stream) override;
    void connected() override;  // logs on

    void requestSources(const MD4Hash& hash);
    // Asks the server to have one of its firewalled clients call us.
    void requestCallback(u32 clientId);
    void publish(const FileList& files);
    void sendSearch(const Search& search);
    void sendAlternateSearch(const Search& search);
    void moreResults();
    // True once the server has assigned us a client ID. Thread: any.
    bool isLoggedOn() const { return loggedOn_ != 0; }

  protected:
    void gone() override;
    u32 bodyLimit() const override;   // 64 KiB before the log-on is answered, 16 MiB after it
    u32 stallLimit() const override;  // 0: this connection never times out
    const OpcodeTable* opcodes() const override;

  private:
    struct Table;  // maps each opcode to its handler
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
    ServerMeta server_;  // copy of the list's entry; used by the pool's thread only, once connected
};
