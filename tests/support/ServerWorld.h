// The client's server network in one process: the real singletons on a socket pool that runs, and index
// servers on loopback that the test speaks for.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>

#include <filesystem>

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "download/DLPool.h"
#include "i4min/network/protocol.h"
#include "meta/FileList.h"
#include "meta/UserList.h"
#include "server/MainServer.h"
#include "server/Search.h"
#include "server/SearchNode.h"
#include "server/ServerPool.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Conversation.h"
#include "tests/support/Process.h"
#include "transport/Worker.h"

// Waits for something to read; 20 seconds at most.
inline bool readable(int descriptor) {
    pollfd entry{descriptor, POLLIN, 0};
    return ::poll(&entry, 1, 20'000) == 1;
}

// Little-endian bodies.
class Body {
  public:
    explicit Body(u8 opcode) { put8(opcode); }
    Body& put8(u32 value) { return put(value, 1); }
    Body& put16(u32 value) { return put(value, 2); }
    Body& put32(u32 value) { return put(value, 4); }
    Body& text(const std::string& bytes) {
        put16(static_cast<u32>(bytes.size()));
        bytes_ += bytes;
        return *this;
    }
    Body& raw(const std::string& bytes) {
        bytes_ += bytes;
        return *this;
    }
    operator const std::string&() const { return bytes_; }

  private:
    Body& put(u32 value, int width) {
        for (int i = 0; i < width; ++i) bytes_ += static_cast<char>(value >> (8 * i));
        return *this;
    }
    std::string bytes_;
};

inline u32 number32(const std::string& bytes, std::size_t at) {
    u32 value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | static_cast<u8>(bytes.at(at + static_cast<std::size_t>(i)));
    return value;
}

// A record of 16 bytes, address and port, whose one tag is its name.
inline std::string namedRecord(const std::string& hash, u32 ip, u16 port, const std::string& name) {
    Body body(0);
    body.raw(hash).put32(ip).put16(port).put32(1).put8(2).put16(1).put8(1).text(name);
    return static_cast<const std::string&>(body).substr(1);
}

// A listener, the connections that came in to it, and a datagram socket on the port 4 above.
class FakeServer {
  public:
    FakeServer() {
        for (int attempt = 0; attempt < 100 && udp_ < 0; ++attempt) open();
        EXPECT_GE(udp_, 0);
    }
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;
    ~FakeServer() {
        hangUp();
        stopListening();
        ::close(udp_);
    }

    u16 port() const { return port_; }
    ServerAddress address() const { return {loopbackIp, port_}; }

    bool accept() {
        hangUp();
        if (!readable(listener_)) return false;
        connection_ = ::accept(listener_, nullptr, nullptr);
        return connection_ >= 0;
    }
    // Nobody is on the way in.
    bool isAlone() const {
        pollfd entry{listener_, POLLIN, 0};
        return ::poll(&entry, 1, 0) == 0;
    }
    std::string read(std::size_t count) {
        std::string bytes;
        while (bytes.size() < count && readable(connection_)) {
            std::string piece(count - bytes.size(), '\0');
            const ssize_t got = ::recv(connection_, piece.data(), piece.size(), 0);
            if (got <= 0) break;
            bytes.append(piece, 0, static_cast<std::size_t>(got));
        }
        return bytes;
    }
    // The body of the next packet; empty at the end.
    std::string packet() {
        const std::string header = read(5);
        if (header.size() != 5 || header[0] != '\xE3') return {};
        return read(number32(header, 1));
    }
    void raw(const std::string& bytes) {
        static_cast<void>(::send(connection_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }
    void send(const std::string& body) { raw(framed(body)); }
    bool isEnded() { return read(1).empty(); }
    void hangUp() {
        if (connection_ >= 0) ::close(connection_);
        connection_ = -1;
    }
    void stopListening() {
        if (listener_ >= 0) ::close(listener_);
        listener_ = -1;
    }

    // The next datagram; its sender is answered by reply().
    std::string datagram() {
        if (!readable(udp_)) return {};
        std::string bytes(4096, '\0');
        socklen_t size = sizeof from_;
        const ssize_t got =
            ::recvfrom(udp_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from_), &size);
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }
    void reply(const std::string& bytes) const { replyFrom(udp_, bytes); }
    void replyFrom(int descriptor, const std::string& bytes) const {
        ::sendto(descriptor, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&from_),
                 sizeof from_);
    }

  private:
    void open() {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in place{};
        place.sin_family = AF_INET;
        place.sin_addr.s_addr = loopbackIp;
        socklen_t size = sizeof place;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&place), sizeof place);
        ::listen(listener_, 50);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&place), &size);
        port_ = ntohs(place.sin_port);
        place.sin_port = htons(static_cast<u16>(port_ + 4));
        udp_ = ::socket(AF_INET, SOCK_DGRAM, 0);
        if (port_ < 65000 && ::bind(udp_, reinterpret_cast<sockaddr*>(&place), sizeof place) == 0) return;
        stopListening();
        ::close(udp_);
        udp_ = -1;
    }

    int listener_ = -1;
    int connection_ = -1;
    int udp_ = -1;
    u16 port_ = 0;
    sockaddr_in from_{};
};

// What the interface hears, as text, in brackets.
class ToldEvents : public CapturedLog {
  public:
    void connected(const char* name) override { printLine("[connected %s]", name); }
    void disconnected() override { printLine("[disconnected]"); }
    void serverStats(u32 files, u32 users) override { printLine("[stats %u files %u users]", files, users); }
    void extending(const char* name) override { printLine("[extending %s]", name); }
    void addResult(FileMeta* file) override {
        printLine("[result %s]", file->getName());
        delete file;
    }
    void setResults(FileList* list, u8 more) override {
        printLine("[results %u more %d]", list->count(), more);
        list->deleteAll();
        delete list;
    }
    void gotUserList(UserList* list) override {
        printLine("[users %u]", list->count());
        list->deleteAll();
        delete list;
    }
    // Waits until all that was printed ends with `end`, and returns it.
    std::string until(const std::string& end) {
        std::string all;
        eventually([&] {
            all += take();
            return all.size() >= end.size() && all.compare(all.size() - end.size(), end.size(), end) == 0;
        });
        return all;
    }
};

// Messages are handled when the test says so. The socket pool and one worker run; they are the process's.
class ServerWorld : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        home = new TemporaryDirectory;
        std::filesystem::current_path(home->path());
        preferences.workDir = (home->path() + "/").c_str();
        preferences.load();
        preferences.setName("abcde");
        makeProtocol(nullptr);
        told = new ToldEvents;
        clientApp.socketPool.start();
        serverPool.setSocketPool(&clientApp.socketPool);
        worker = new Worker(clientApp.socketPool);
        worker->start();
    }
    static void TearDownTestSuite() {
        worker->stop();
        delete worker;
        clientApp.socketPool.stop();
        clientApp.socketPool.deleteConnections();
        delete told;
        std::filesystem::current_path("/");
        delete home;
    }
    ServerWorld() {
        preferences.setClientId(0);
        preferences.setServer(0, 0);
    }
    ~ServerWorld() override {
        serverPool.disconnect();
        EXPECT_TRUE(eventually([] { return clientApp.socketPool.count == 1; })) << "the annex alone stays";
        drain();
        serverPool.servers().deleteAll();
        clientApp.shared.clear();
        clientApp.clearPublished();
        log.take();
    }

    static void drain() {
        while (messageQ.process()) continue;
    }
    // Handles messages until one was there.
    static bool handleNext() {
        return eventually([] { return messageQ.process(); });
    }
    static bool connectTo(FakeServer& server) {
        const ServerAddress address = server.address();
        serverPool.connect(&address);
        return server.accept();
    }
    // Up to the answer that gives the ID, and what follows it.
    void logOn(FakeServer& server, u32 id = 0x04030201) {
        ASSERT_TRUE(connectTo(server));
        EXPECT_EQ(server.packet().at(0), 1);
        server.send(Body(64).put32(id));
        EXPECT_EQ(server.packet(), std::string(1, 20));
        server.send(Body(52).put32(0).put32(0));
        log.until("[stats 0 files 0 users]\n");
        drain();
    }

    inline static TemporaryDirectory* home = nullptr;
    inline static Worker* worker = nullptr;
    // The pool's thread may speak at any time: the log outlives it.
    inline static ToldEvents* told = nullptr;
    ToldEvents& log = *told;
};
