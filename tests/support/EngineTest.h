// A fixture with an engine in its own directory, without threads, and with peers that have no network.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "core/MessageQ.h"
#include "core/Preferences.h"
#include "download/DLPool.h"
#include "download/PartialList.h"
#include "protocol/PeerProtocol.h"
#include "tests/support/Conversation.h"
#include "tests/support/OwnEngine.h"
#include "tests/support/ScriptedSocket.h"
#include "tests/support/records.h"

constexpr u32 addressOf(u8 last) { return 0x0A | static_cast<u32>(last) << 24; }  // 10.0.0.last

// The user at 10.0.0.last, port 4662, whose hash repeats the byte `last`.
class User : public UserMeta {
  public:
    explicit User(u8 last) {
        hash = hashOf(last);
        id = addressOf(last);
        port = 4662;
    }
};

// A request for up to three ranges, each from `first` to before `second`.
inline std::string requestFor(const MD4Hash& file, std::vector<std::pair<u32, u32>> ranges) {
    ranges.resize(3);
    std::string body = bytesOf(file);
    for (const auto& range : ranges) body += le32(range.first);
    for (const auto& range : ranges) body += le32(range.second);
    return opcode(OP_REQUEST_PARTS, body);
}

// A socket with a remote address.
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

// A connection that isn't in its pool. Tests take what it sends from its queue, and feed it through its
// turns.
template <class Base>
class InNoPool : public Base {
  public:
    // A connection accepted from the address `from`. `needs` are Base's arguments between pool and socket.
    template <class... Needs>
    explicit InNoPool(SocketPool& pool, u32 from, Needs&... needs)
        : InNoPool(pool, new AddressedSocket(from), needs...) {}

    // Returns true while the connection lives.
    bool hear(const std::string& body) { return hearRaw(framed(body)); }
    bool hearRaw(const std::string& bytes) {
        scripted_->pieces.push_back(bytes);
        while (!scripted_->pieces.empty() && !refused_) turn(I4_SELECT_READ);
        return !refused_;
    }
    // Takes all queued packets and returns their bodies.
    std::vector<std::string> sent() {
        std::vector<std::string> bodies;
        while (const std::unique_ptr<Packet> packet = this->takeFirstToSend())
            bodies.push_back(bodyOf(*packet));
        return bodies;
    }
    // Takes the only queued packet; empty if there is none or more than one.
    std::string sentOne() {
        const std::vector<std::string> bodies = sent();
        return bodies.size() == 1 ? bodies[0] : "";
    }
    // Sends the first queued packet through the socket. Returns its body, or empty if there is none.
    std::string leave() {
        const Packet* packet = this->firstToSend();
        if (!packet) return {};
        std::string body = bodyOf(*packet);
        turn(I4_SELECT_WRITE);
        return body;
    }
    bool wasAskedToClose() const { return this->isClosing(); }
    std::size_t unread() const { return scripted_->pieces.size(); }

  private:
    template <class... Needs>
    explicit InNoPool(SocketPool& pool, AddressedSocket* socket, Needs&... needs)
        : Base(pool, needs..., std::unique_ptr<i4_socket>(socket)), scripted_(socket) {}

    void turn(u32 events) {
        this->lastEvents_ = events;
        this->setBusy(true);
        this->doTask(&this->pool());
        refused_ = this->isBusy();
    }
    static std::string bodyOf(const Packet& packet) {
        return {reinterpret_cast<const char*>(packet.stream.buffer()), packet.size};
    }

    AddressedSocket* const scripted_;
    bool refused_ = false;
};

// A Peer that tests drive, with access to its limits.
class TestPeer : public InNoPool<Peer> {
  public:
    using InNoPool::InNoPool;
    u32 mostQueued() const { return queueLimit(); }
    bool awaits() const { return awaitsFirst(); }
};

// An engine that was started once. Its ID is 10.0.0.100, its port 4662.
class EngineTest : public testing::Test, protected OwnEngine {
  protected:
    EngineTest() {
        log.setVerbose(true);
        preferences.load();
        std::filesystem::create_directories(preferences.incomingDir().c_str());
        std::filesystem::create_directories(preferences.tempDir().c_str());
        preferences.setClientId(addressOf(100));
        preferences.setServer(addressOf(200), 4661);
    }
    ~EngineTest() override {
        for (const Ref<TestPeer>& peer : made) peer->end();
        clientApp.socketPool.deleteConnections();
    }
    // A User as in a hello, without server; named user1 and so on by default.
    static std::string identity(u8 last, const std::string& name = "", u32 id = 0) {
        const std::string& known = name.empty() ? "user" + std::to_string(last) : name;
        return namedRecord(hashOf(last), id != 0 ? id : addressOf(last), 4662, known) + le32(0) + le16(0);
    }
    TestPeer& stranger(u8 last) {
        made.emplace_back(new TestPeer(clientApp.socketPool, addressOf(last), engine.peerNeeds));
        return *made.back();
    }
    // One that has said hello, and heard the answer.
    TestPeer& peer(u8 last, const std::string& name = "") { return visitor(last, identity(last, name)); }
    TestPeer& visitor(u8 address, const std::string& who) {
        TestPeer& result = stranger(address);
        EXPECT_TRUE(result.hear(opcode(OP_HELLO, "\x10" + who)));
        result.sent();
        return result;
    }
    // One that we called, and that has answered.
    TestPeer& reached(u8 last) {
        TestPeer& result = stranger(last);
        result.connected();
        EXPECT_TRUE(result.hear(opcode(OP_HELLO_ANSWER, identity(last))));
        result.sent();
        return result;
    }
    // A shared file in the test's directory.
    FileMeta& shareFile(const MD4Hash& hash, const std::string& name, const std::string& content) {
        writeFile(directory.file(name), content);
        auto file = makeFile(name, static_cast<u32>(content.size()), 0);
        file->hash = hash;
        file->setPath(directory.file(name).c_str());
        FileMeta& result = *file;
        clientApp.shared.add(file.get());
        clientApp.known.add(file.release());
        return result;
    }
    // A download in the pool that is looking for sources.
    Ref<Download> startDownload(const MD4Hash& hash, const std::string& name, u32 size) {
        const auto file = makeFile(name, size, 0);
        file->hash = hash;
        dlPool.add(*file);
        Ref<Download> download = dlPool.find(hash);
        if (!download) ADD_FAILURE() << log.take();
        if (download) download->tick(1);
        return download;
    }

    std::vector<Ref<TestPeer>> made;
};
