// What a stranger sends to a peer connection: messages one after the other, each a u16 length and a body. The
// engine behind it is the real one, without threads: a download, a shared file, a friend.
#include <string>

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "download/DLPool.h"
#include "fuzz/fuzz.h"
#include "i4min/network/socket.h"
#include "peer/FriendList.h"
#include "peer/Peer.h"
#include "peer/UploadPool.h"
#include "tests/support/files.h"
#include "tests/support/records.h"

namespace {

class FuzzedPeer : public Fuzzed<Peer> {
  public:
    FuzzedPeer() : Fuzzed(nullptr, nullptr) {}

    // Packets leave, so that transfers go on; for a while.
    void drain() {
        for (int i = 0; i < 20; ++i) {
            const std::unique_ptr<Packet> packet = takeFirstToSend();
            if (!packet) return;
            packet->sent();
        }
    }
};

bool setUp() {
    static const TemporaryDirectory home;
    preferences.workDir = home.path().c_str();
    preferences.load();
    std::filesystem::create_directories(preferences.tempDir().c_str());
    preferences.setClientId(0x6400000A);
    writeFile(home.file("shared.bin"), std::string(100'000, 'x'));
    auto file = makeFile("shared.bin", 100'000, 0xAA);
    file->setPath(home.file("shared.bin").c_str());
    clientApp.shared.add(file.get());
    clientApp.known.add(file.release());
    dlPool.add(*makeFile("wanted.bin", 20'000'000, 0xBB));
    friendList.add(0x0100000A, 4662);
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool ready = setUp();
    require(ready);
    if (const Ref<Download> download = dlPool.find(hashOf(0xBB))) {
        download->tick(1);
        UserMeta source;
        source.id = 0x0100000A;
        source.port = 4662;
        download->addSource(source);
    }
    const Ref<FuzzedPeer> peer(new FuzzedPeer);
    peer->hearAll(data, size, [&] { peer->drain(); });
    peer->end();
    uploadPool.tick(121'000);
    while (messageQ.process()) continue;
    clientApp.socketPool.deleteConnections();
    return 0;
}
