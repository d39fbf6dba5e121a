// The client's server network in one process: the real singletons on a socket pool that runs, and index
// servers on loopback that the test speaks for.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "i4min/network/protocol.h"
#include "server/MainServer.h"
#include "server/Search.h"
#include "server/ServerPool.h"
#include "tests/support/Process.h"
#include "tests/support/ToldEvents.h"
#include "transport/Worker.h"

// A listener, the connection that came in to it last, and a datagram socket on the port 4 above.
class FakeServer : public Caller {
  public:
    FakeServer() {
        sockaddr_in place{};
        do {
            listener_ = std::make_unique<Listener>();
            place = loopbackAt(port() + 4u);
        } while (::bind(udp_, reinterpret_cast<sockaddr*>(&place), sizeof place) != 0);
    }
    ~FakeServer() { ::close(udp_); }

    u16 port() const { return listener_->port(); }
    ServerAddress address() const { return {loopbackIp, port()}; }
    bool accept() { return Caller::accept(listener_->descriptor()); }
    // Nobody is on the way in.
    bool isAlone() const { return !isReadable(listener_->descriptor(), std::chrono::seconds(0)); }
    void stopListening() { listener_->close(); }

    // The next datagram; its sender is answered by reply().
    std::string datagram() {
        std::string bytes(isReadable(udp_) ? 4096 : 0, '\0');
        socklen_t size = sizeof from_;
        const ssize_t got =
            ::recvfrom(udp_, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&from_), &size);
        bytes.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
        return bytes;
    }
    int datagrams() const { return udp_; }
    void reply(const std::string& bytes) const { replyFrom(udp_, bytes); }
    void replyFrom(int descriptor, const std::string& bytes) const {
        ::sendto(descriptor, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&from_),
                 sizeof from_);
    }

  private:
    std::unique_ptr<Listener> listener_;
    const int udp_ = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in from_{};
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
        log.verbose = 1;
        preferences.setClientId(0);
        preferences.setServer(0, 0);
        preferences.doorPort = 4662;
        search.add(std::make_unique<SN_FindStr>("film"), 0);
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
    static bool connectTo(FakeServer& server) {
        const ServerAddress address = server.address();
        serverPool.connect(&address);
        return server.accept();
    }
    // Up to the answer that gives the ID, and what follows it.
    void logOn(FakeServer& server) {
        ASSERT_TRUE(connectTo(server));
        EXPECT_EQ(server.packet().at(0), 1);
        server.say(opcode(64, le32(0x04030201)));
        EXPECT_EQ(server.packet(), opcode(20));
        server.say(opcode(52, le32(0) + le32(0)));
        log.until("[stats 0 files 0 users]\n");
        drain();
    }

    inline static TemporaryDirectory* home = nullptr;
    inline static Worker* worker = nullptr;
    // The pool's thread may speak at any time: the log outlives it.
    inline static ToldEvents* told = nullptr;
    ToldEvents& log = *told;
    Search search;  // the word "film"
    const std::string tree = "\1" + text16("film");
};
