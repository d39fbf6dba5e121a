// What an index server sends: messages one after the other, each a u16 length and a body.
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "fuzz/fuzz.h"
#include "server/MainServer.h"
#include "server/ServerPool.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A call back to an address of the input's choice would leave the process: all connections are taken.
    static Silence silence;
    preferences.maxCon = 0;
    ServerMeta entry;
    entry.setAddress("10.1.1.1", 4661);
    const Ref<Fuzzed<MainServer>> server(new Fuzzed<MainServer>(entry));
    server->hearAll(data, size, [] {});
    // What a run leaves behind.
    serverPool.servers().deleteAll();
    preferences.setClientId(0);
    preferences.setServer(0, 0);
    serverPool.stopTrying();
    server->end();
    // The messages that the run posted are handled with no server there: they find nothing to do.
    while (messageQ.process()) continue;
    return 0;
}
