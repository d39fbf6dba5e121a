// SourceFinder, whom downloads ask for sources.
#pragma once

#include <vector>

#include "meta/MD4Hash.h"
#include "server/ServerAsk.h"

// Thread: any.
class SourceFinder {
  public:
    // False, and nothing goes out, until a server has logged us on.
    virtual bool findSources(const ServerAddress& address, const MD4Hash& hash) = 0;
    virtual ServerAddress currentAddress() const = 0;  // of the current server, zero where there is none
    virtual bool isOnline() const = 0;                 // it has logged us on
    virtual void listSourceServers(std::vector<ServerAsk>& out) = 0;

  protected:
    ~SourceFinder() = default;
};
