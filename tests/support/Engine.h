// The engine's own objects for a test, in a directory of its own and without threads, and peers without a
// network.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "download/DLPool.h"
#include "download/PartialList.h"
#include "meta/FileMeta.h"
#include "peer/CallList.h"
#include "peer/FriendList.h"
#include "peer/Peer.h"
#include "peer/RemoteQueueList.h"
#include "peer/UploadPool.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Conversation.h"
#include "tests/support/Process.h"
#include "tests/support/ScriptedSocket.h"

inline std::string le16(u32 value) { return {static_cast<char>(value), static_cast<char>(value >> 8)}; }
inline std::string le32(u32 value) { return le16(value) + le16(value >> 16); }
inline u32 readLe32(const std::string& bytes, std::size_t at) {
    u32 value = 0;
    for (std::size_t i = 4; i-- > 0;) value = value << 8 | static_cast<u8>(bytes.at(at + i));
    return value;
}
inline std::string text16(const std::string& text) { return le16(static_cast<u32>(text.size())) + text; }
inline std::string bytesOf(const MD4Hash& hash) {
    return {reinterpret_cast<const char*>(hash.bytes.data()), hash.bytes.size()};
}
inline MD4Hash hashOf(u8 fill) {
    MD4Hash hash;
    hash.bytes.fill(fill);
    return hash;
}
inline std::string opcode(u32 number, const std::string& payload = {}) {
    return std::string(1, static_cast<char>(number)) + payload;
}

constexpr u32 addressOf(u8 last) { return 0x0A | static_cast<u32>(last) << 24; }  // 10.0.0.last

// Who is at 10.0.0.last, port 4662; the hash is `last` sixteen times.
class User : public UserMeta {
  public:
    explicit User(u8 last) {
        hash = hashOf(last);
        id = addressOf(last);
        port = 4662;
    }
};

// A socket whose other side has an address.
class AddressedSocket : public ScriptedSocket {
  public:
    explicit AddressedSocket(u32 ip) : ip_(ip) {}
    std::unique_ptr<i4_address> remote_address() override {
        auto address = std::make_unique<i4_tcpip_address>();
        address->address.sin_addr.s_addr = ip_;
        return address;
    }

  private:
    const u32 ip_;
};

// A real Peer in no pool: what it sends is taken from its queue, and what it hears goes through its turns.
class TestPeer : public Peer {
  public:
    // One that came in from that address.
    explicit TestPeer(u32 from) : TestPeer(new AddressedSocket(from)) {}

    // True while the connection lives.
    bool hear(const std::string& body) {
        scripted_->pieces.push_back(framed(body));
        while (!scripted_->pieces.empty() && !refused_) turn(I4_SELECT_READ);
        return !refused_;
    }
    // The bodies of all packets that wait, which are dropped.
    std::vector<std::string> sent() {
        std::vector<std::string> bodies;
        while (const std::unique_ptr<Packet> packet = takeFirstToSend()) bodies.push_back(bodyOf(*packet));
        return bodies;
    }
    // The one packet that waits; empty where there is none or more than one.
    std::string sentOne() {
        const std::vector<std::string> bodies = sent();
        return bodies.size() == 1 ? bodies[0] : "";
    }
    // Lets the first packet that waits leave through the socket. Its body, empty where there is none.
    std::string leave() {
        const Packet* packet = firstToSend();
        if (!packet) return {};
        std::string body = bodyOf(*packet);
        turn(I4_SELECT_WRITE);
        return body;
    }
    bool wasAskedToClose() const { return isClosing(); }
    u32 mostQueued() const { return queueLimit(); }
    bool awaits() const { return awaitsFirst(); }

  private:
    explicit TestPeer(AddressedSocket* socket)
        : Peer(std::unique_ptr<i4_socket>(socket), nullptr), scripted_(socket) {}

    void turn(u32 events) {
        lastEvents_ = events;
        setBusy(true);
        doTask(&clientApp.socketPool);
        refused_ = isBusy();
    }
    static std::string bodyOf(const Packet& packet) {
        return {reinterpret_cast<const char*>(packet.stream.buffer()), packet.size};
    }

    AddressedSocket* const scripted_;
    bool refused_ = false;
};

// The singletons, set up afresh. Own ID 10.0.0.100, port 4662.
class Engine : public testing::Test {
  protected:
    Engine() {
        log.verbose = 1;
        preferences.workDir = directory.path().c_str();
        preferences.load();
        std::filesystem::create_directories(preferences.incomingDir().c_str());
        std::filesystem::create_directories(preferences.tempDir().c_str());
        preferences.setClientId(addressOf(100));
        preferences.setServer(addressOf(200), 4661);
        preferences.maxCon = 45;
        preferences.pmAllow = 0;
        preferences.userMaxUpF = 0;
        preferences.curUpSpeed = 0;
        preferences.maxUpSpeed = 5.0F;
        clientApp.socketPool.count = 0;
    }
    ~Engine() override {
        for (const Ref<TestPeer>& peer : made) peer->end();
        clientApp.socketPool.deleteConnections();
        uploadPool.clear();
        dlPool.stopAll();
        remoteQueueList.clear();
        friendList.deleteAll();
        clientApp.shared.clear();
        clientApp.known.deleteAll();
        clientApp.partials().deleteAll();
        while (messageQ.process()) continue;
    }

    // A User as Hello has it, of no server.
    static std::string identity(u8 last, const std::string& name = "", u32 id = 0) {
        std::string record = bytesOf(hashOf(last)) + le32(id != 0 ? id : addressOf(last)) + le16(4662);
        if (name.empty()) return record + le32(0) + le32(0) + le16(0);
        return record + le32(1) + "\2" + text16("\1") + text16(name) + le32(0) + le16(0);
    }
    TestPeer& stranger(u8 last) {
        made.emplace_back(new TestPeer(addressOf(last)));
        return *made.back();
    }
    // One that has said hello, and heard the answer.
    TestPeer& peer(u8 last, const std::string& name = "") {
        TestPeer& result = stranger(last);
        EXPECT_TRUE(result.hear(opcode(1, "\x10" + identity(last, name))));
        result.sent();
        return result;
    }
    // A file that lies in the directory and is shared.
    FileMeta& shareFile(const MD4Hash& hash, const std::string& name, const std::string& content) {
        std::ofstream(directory.file(name), std::ios::binary) << content;
        auto file = std::make_unique<FileMeta>();
        file->hash = hash;
        file->setName(name.c_str());
        file->setInt(TAG_SIZE, static_cast<u32>(content.size()));
        file->setPath(directory.file(name).c_str());
        FileMeta& result = *file;
        clientApp.shared.add(file.get());
        clientApp.known.add(file.release());
        return result;
    }
    // A download in the pool that is looking for sources.
    Ref<Download> startDownload(const MD4Hash& hash, const std::string& name, u32 size) {
        FileMeta file;
        file.hash = hash;
        file.setName(name.c_str());
        file.setInt(TAG_SIZE, size);
        dlPool.add(file);
        Ref<Download> download = dlPool.find(hash);
        if (!download) ADD_FAILURE() << log.take();
        if (download) download->tick(1);
        return download;
    }

    TemporaryDirectory directory;
    CapturedLog log;
    std::vector<Ref<TestPeer>> made;
};
