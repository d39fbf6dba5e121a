// ExServerAnnex, the client's one UDP socket towards index servers.
#pragma once

#include "core/MessageQ.h"
#include "transport/UDPAnnex.h"

class Search;
class ServerDesk;
struct ServerNeeds;
struct MD4Hash;

// Pings every server, and extends searches, source requests and callback requests to those that the client
// isn't logged on to. Each datagram stands alone. A server's UDP port is its TCP port plus 4; every address
// here has the TCP port. server/ExServerAnnex.cpp has the table of the messages.
// Thread: sending on any, answers on the socket pool's.
class ExServerAnnex : public UDPAnnex {
  public:
    ExServerAnnex(SocketPool& pool, ServerDesk& desk, const ServerNeeds& needs)
        : UDPAnnex(pool), desk_(desk), needs_(needs) {}

    void ping(const ServerAddress& server);
    void sendSearch(const Search& search, const ServerAddress& server);
    void sendAlternateSearch(const Search& search, const ServerAddress& server);
    void findSources(const MD4Hash& hash, const ServerAddress& server);
    void requestCallback(u32 clientId, const ServerAddress& server);

  protected:
    void handleDatagram() override;

  private:
    std::unique_ptr<UDPPacket> makeDatagram(u8 opcode, u32 payload, const ServerAddress& server);
    void gotPing(const ServerAddress& server);
    void gotResult();
    void gotSources(const ServerAddress& server);
    void sendTree(u8 opcode, const Search& search, const ServerAddress& server);

    ServerDesk& desk_;
    const ServerNeeds& needs_;
};
