// What a stranger sends to a peer connection: messages one after the other, each a u16 length and a body. The
// engine behind it is the real one, without threads: a download, a shared file, a friend.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "download/DLPool.h"
#include "fuzz/fuzz.h"
#include "i4min/memory/error.h"
#include "i4min/network/socket.h"
#include "peer/FriendList.h"
#include "peer/Peer.h"
#include "peer/UploadPool.h"

namespace {

class FuzzedPeer : public Peer {
  public:
    FuzzedPeer() : Peer(nullptr, nullptr) {}

    // False once the connection would be dropped.
    bool hear(const std::string& body) {
        i4_owned_ram_file stream;
        stream.write(body.data(), static_cast<u32>(body.size()));
        stream.seek(0);
        try {
            const u8 opcode = stream.read_8();
            return gotFirst ? handleMessage(opcode, stream) : firstMessage(opcode, stream);
        } catch (const i4_err&) {
            return false;
        }
    }
    // Packets leave, so that transfers go on; for a while.
    void drain() {
        for (int i = 0; i < 20; ++i) {
            const std::unique_ptr<Packet> packet = takeFirstToSend();
            if (!packet) return;
            packet->sent();
        }
    }
};

void setUp() {
    std::string directory = std::filesystem::temp_directory_path() / "fuzz_peer.XXXXXX";
    require(::mkdtemp(directory.data()) != nullptr);
    preferences.workDir = directory.c_str();
    preferences.load();
    std::filesystem::create_directories(preferences.tempDir().c_str());
    preferences.setClientId(0x6400000A);
    const std::string path = directory + "/shared.bin";
    std::ofstream(path) << std::string(100'000, 'x');
    auto file = std::make_unique<FileMeta>();
    file->hash = hashOf(0xAA);
    file->setName("shared.bin");
    file->setPath(path.c_str());
    clientApp.shared.add(file.get());
    clientApp.known.add(file.release());
    FileMeta wanted;
    wanted.hash = hashOf(0xBB);
    wanted.setName("wanted.bin");
    wanted.setInt(TAG_SIZE, 20'000'000);
    dlPool.add(wanted);
    friendList.add(0x0100000A, 4662);
    std::atexit([] { std::filesystem::remove_all(preferences.workDir.c_str()); });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = (setUp(), true);
    static_cast<void>(ready);
    if (const Ref<Download> download = dlPool.find(hashOf(0xBB))) {
        download->tick(1);
        UserMeta source;
        source.id = 0x0100000A;
        source.port = 4662;
        download->addSource(source);
    }
    const Ref<FuzzedPeer> peer(new FuzzedPeer);
    for (size_t at = 0; at + 2 < size;) {
        const size_t length =
            std::min<size_t>(data[at] | static_cast<size_t>(data[at + 1]) << 8, size - at - 2);
        const std::string body(reinterpret_cast<const char*>(data) + at + 2, length);
        at += 2 + length;
        if (!peer->hear(body)) break;
        peer->drain();
    }
    peer->end();
    uploadPool.tick(121'000);
    while (messageQ.process()) continue;
    clientApp.socketPool.deleteConnections();
    return 0;
}
