// Messages of an index server, each a u16 length and a body.
#include "fuzz/fuzz.h"
#include "server/MainServer.h"

FUZZ_TARGET(main_server) {
    // No connections are allowed: a connect to an address from the input would leave the process.
    OwnEngine& own = quietEngine();
    own.preferences.maxCon = 0;
    ServerMeta entry;
    entry.setAddress("10.1.1.1", 4661);
    const Ref<Fuzzed<MainServer>> server(
        new Fuzzed<MainServer>(own.clientApp.socketPool, own.serverPool, own.engine.serverNeeds, entry));
    server->hearAll(data, size, [] {});
    // Removes the run's leftovers.
    own.serverPool.servers().deleteAll();
    own.preferences.setClientId(0);
    own.preferences.setServer(0, 0);
    own.serverPool.stopTrying();
    server->end();
    // Handles the posted messages; without a server they do nothing.
    while (own.messageQ.process()) continue;
}
