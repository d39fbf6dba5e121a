// What an index server sends: messages one after the other, each a u16 length and a body.
#include "fuzz/fuzz.h"
#include "server/MainServer.h"

FUZZ_TARGET(main_server) {
    // A call back to an address of the input's choice would leave the process: all connections are taken.
    OwnEngine& own = quietEngine();
    own.preferences.maxCon = 0;
    ServerMeta entry;
    entry.setAddress("10.1.1.1", 4661);
    const Ref<Fuzzed<MainServer>> server(
        new Fuzzed<MainServer>(own.clientApp.socketPool, own.serverPool, own.engine.serverNeeds, entry));
    server->hearAll(data, size, [] {});
    // What a run leaves behind.
    own.serverPool.servers().deleteAll();
    own.preferences.setClientId(0);
    own.preferences.setServer(0, 0);
    own.serverPool.stopTrying();
    server->end();
    // The messages that the run posted are handled with no server there: they find nothing to do.
    while (own.messageQ.process()) continue;
}
