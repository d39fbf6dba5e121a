// What an index server sends: packets through the handlers of a MainServer, framed as on the wire.
#include <string>

#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "fuzz/fuzz.h"
#include "i4min/memory/error.h"
#include "server/MainServer.h"
#include "server/ServerPool.h"
#include "tests/support/ScriptedSocket.h"

namespace {

// One that speaks for a server without the log-on.
class FuzzedServer : public MainServer {
  public:
    using MainServer::MainServer;
    u32 limit() const { return bodyLimit(); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A call back to an address of the input's choice would leave the process: all connections are taken.
    preferences.maxCon = 0;
    ServerMeta entry;
    entry.setAddress("10.1.1.1", 4661);
    const Ref<FuzzedServer> server(new FuzzedServer(entry));
    ScriptedSocket socket;
    socket.ends = true;
    socket.pieces.push_back(std::string(reinterpret_cast<const char*>(data), size));
    try {
        while (true) {
            Packet packet;
            u32 moved = 0;
            Packet::Result result = Packet::more;
            while (result == Packet::more && !socket.atEnd())
                result = packet.receive(socket, moved, server->limit());
            if (result != Packet::complete) break;
            const u8 opcode = packet.stream.read_8();
            if (!server->handleMessage(opcode, packet.stream)) break;
        }
    } catch (const i4_err&) {
        // What the connection's turn does: it ends.
    }
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
