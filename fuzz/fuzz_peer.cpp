// Messages of a stranger on a peer connection, each a u16 length and a body. The engine is real, without
// threads, with a download, a shared file and a friend.
#include <string>

#include "fuzz/fuzz.h"
#include "i4min/network/socket.h"
#include "tests/support/files.h"
#include "tests/support/records.h"

namespace {

class FuzzedPeer : public Fuzzed<Peer> {
  public:
    explicit FuzzedPeer(OwnEngine& own) : Fuzzed(own.clientApp.socketPool, own.engine.peerNeeds, nullptr) {}

    // Sends some packets, so that transfers continue.
    void drain() {
        for (int i = 0; i < 20; ++i) {
            const std::unique_ptr<Packet> packet = takeFirstToSend();
            if (!packet) return;
            packet->sent();
        }
    }
};

bool setUp(OwnEngine& own) {
    const TemporaryDirectory& home = own.directory;
    own.preferences.setClientId(0x6400000A);
    writeFile(home.file("shared.bin"), std::string(100'000, 'x'));
    auto file = makeFile("shared.bin", 100'000, 0xAA);
    file->setPath(home.file("shared.bin").c_str());
    own.clientApp.shared.add(file.get());
    own.clientApp.known.add(file.release());
    own.dlPool.add(*makeFile("wanted.bin", 20'000'000, 0xBB));
    own.friendList.add(0x0100000A, 4662);
    return true;
}

}  // namespace

FUZZ_TARGET(peer) {
    OwnEngine& own = quietEngine();
    static const bool ready = setUp(own);
    require(ready);
    if (const Ref<Download> download = own.dlPool.find(hashOf(0xBB))) {
        download->tick(1);
        UserMeta source;
        source.id = 0x0100000A;
        source.port = 4662;
        download->addSource(source);
    }
    const Ref<FuzzedPeer> peer(new FuzzedPeer(own));
    peer->hearAll(data, size, [&] { peer->drain(); });
    peer->end();
    own.uploadPool.tick(121'000);
    while (own.messageQ.process()) continue;
    own.clientApp.socketPool.deleteConnections();
}
