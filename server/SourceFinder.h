// SourceFinder: the interface through which downloads ask servers for sources.
#pragma once

#include <vector>

#include "meta/MD4Hash.h"
#include "server/ServerAsk.h"

// Lets a download list the servers to ask and send them requests. ServerPool implements it. Answers arrive
// later through ServerEvents.
// Thread: any.
class SourceFinder {
  public:
    // Returns false and sends nothing unless logged on to a server.
    virtual bool findSources(const ServerAddress& address, const MD4Hash& hash) = 0;
    virtual ServerAddress currentAddress() const = 0;  // of the current server; zero if there is none
    virtual bool isOnline() const = 0;                 // logged on to a server
    virtual void listSourceServers(std::vector<ServerAsk>& out) = 0;

  protected:
    ~SourceFinder() = default;
};
