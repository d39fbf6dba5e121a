// ExServerAnnex: the client's UDP socket for messages to and from index servers.
#pragma once

#include "core/MessageQ.h"
#include "transport/UDPAnnex.h"

class Search;
class ServerDesk;
struct ServerNeeds;
struct MD4Hash;

// Pings all listed servers. Also sends searches, source requests and callback requests to servers that the
// client isn't logged on to. Each datagram is independent. A server's UDP port is its TCP port plus 4;
// addresses passed to this class hold the TCP port. The message table is in server/ExServerAnnex.cpp.
// Thread: any thread may send; answers are handled on the socket pool's thread.
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
