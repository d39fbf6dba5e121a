// The connection to an index server, the choice of the server, the server list, and the datagrams to other
// servers. Uses loopback, servers that the test plays, and the test's own clock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "core/MessageQ.h"
#include "core/Preferences.h"
#include "download/DLPool.h"
#include "download/FileSource.h"
#include "download/HashThread.h"
#include "engine/ClientApp.h"
#include "engine/FilterList.h"
#include "protocol/PeerProtocol.h"
#include "protocol/ServerProtocol.h"
#include "server/MainServer.h"
#include "server/Search.h"
#include "server/ServerPool.h"
#include "tests/support/OwnEngine.h"
#include "tests/support/ToldEvents.h"
#include "tests/support/files.h"
#include "tests/support/records.h"
#include "tests/support/systemDisk.h"
#include "transport/Worker.h"

namespace {

constexpr u32 ipA = 0x0101010A;
constexpr u32 ipB = 0x0201010A;
constexpr u32 ipC = 0x0301010A;

const MD4Hash someHash = hashOf('h');
const std::string hash = bytesOf(someHash);
const std::string tree = "\1" + text16("film");
const std::string connecting = "Connecting to 127.0.0.1 ....\n";
const std::string queued = "Placed on connection Queue.\n";
const std::string failed = "Can't connect to: 127.0.0.1\n";

std::string named(const std::string& name) { return namedRecord(someHash, 0, 0, name); }

// A listener, the last connection that it accepted, and a UDP socket on its port plus 4.
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
    // True if no connection is waiting.
    bool isAlone() const { return !isReadable(listener_->descriptor(), std::chrono::seconds(0)); }
    void stopListening() { listener_->close(); }

    // Reads the next datagram; reply() answers its sender.
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

// Messages are handled when the test says so. The socket pool and a worker run; the suite owns them.
class Servers : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        told = new ToldEvents;
        own = new OwnEngine(told);
        std::filesystem::current_path(own->directory.path());
        own->preferences.load();
        own->preferences.setName("abcde");
        own->clientApp.socketPool.start();
        own->serverPool.setSocketPool(own->clientApp.socketPool);
        worker = new Worker(own->clientApp.socketPool);
        worker->start();
    }
    static void TearDownTestSuite() {
        worker->stop();
        delete worker;
        own->clientApp.socketPool.stop();
        own->clientApp.socketPool.deleteConnections();
        std::filesystem::current_path("/");
        delete own;
        delete told;
    }
    Servers() {
        log.setVerbose(true);
        own->preferences.setClientId(0);
        own->preferences.setServer(0, 0);
        own->preferences.doorPort = 4662;
        search.add(std::make_unique<SN_FindStr>("film"), 0);
    }
    ~Servers() override {
        own->serverPool.disconnect();
        EXPECT_TRUE(eventually([] {
            return own->clientApp.socketPool.count == 1 && !own->serverPool.mainServer();
        })) << "the annex alone stays";
        drain();
        own->serverPool.servers().deleteAll();
        own->clientApp.shared.clear();
        own->clientApp.clearPublished();
        log.take();
    }

    static void drain() {
        while (own->messageQ.process()) continue;
    }
    static bool connectTo(FakeServer& server) {
        const ServerAddress address = server.address();
        own->serverPool.connect(&address);
        return server.accept();
    }
    // Rates the servers so that a lower ping comes first.
    static void know(const FakeServer& server, i32 ping) {
        own->serverPool.addServer(loopbackIp, server.port());
        const i4_guard guard(own->serverPool.servers());
        own->serverPool.servers().find(loopbackIp, server.port())->setPing(ping);
    }
    // Runs up to the answer with the ID and what follows it.
    void logOn(FakeServer& server) {
        ASSERT_TRUE(connectTo(server));
        EXPECT_EQ(server.packet().at(0), 1);
        heard(server, opcode(OP_CLIENT_ID, le32(0x04030201)));
        EXPECT_EQ(server.packet(), opcode(OP_GET_SERVER_LIST));
        drain();
    }
    // The output caused by a server's packet. The connection must still work after it.
    std::string heard(FakeServer& server, const std::string& body) {
        server.send(framed(body) + framed(opcode(OP_SERVER_STATUS, le32(7) + le32(9))));
        std::string all = log.until("[stats 9 files 7 users]\n");
        all.resize(all.rfind("[stats"));
        return all;
    }

    inline static OwnEngine* own = nullptr;
    inline static Worker* worker = nullptr;
    // The pool's thread may print at any time, so the log outlives it.
    inline static ToldEvents* told = nullptr;
    ToldEvents& log = *told;
    Search search;  // the word "film"
    FakeServer first;
    FakeServer second;
};

TEST_F(Servers, LogsOnAsksAndIsLeft) {
    own->serverPool.search(search, false);
    own->serverPool.moreResults();
    EXPECT_EQ(log.take(), "Not connected to a server.\nNot connected to a server.\n");
    UserMeta self;
    own->preferences.copySelf(self);
    ASSERT_TRUE(connectTo(first));
    EXPECT_EQ(first.packet(),
              opcode(OP_LOGON, namedRecord(self.hash, 0, 4662, "abcde")).replace(23, 1, "\2") + "\3" +
                  text16("\x11") + le32(59));
    EXPECT_EQ(log.take(), connecting + queued);
    // Requests before the log-on's answer could end the connection.
    EXPECT_FALSE(own->serverPool.findSources(first.address(), someHash));
    EXPECT_FALSE(own->serverPool.requestCallback(loopbackIp, first.port(), 7));
    EXPECT_EQ(heard(first, opcode(OP_CLIENT_ID, le32(0x04030201))), "[connected 127.0.0.1]\n");
    EXPECT_EQ(first.packet(), opcode(OP_GET_SERVER_LIST));
    EXPECT_EQ(own->preferences.clientId(), 0x04030201u);
    EXPECT_EQ(own->preferences.serverPort(), first.port());

    own->serverPool.search(search, false);
    own->serverPool.search(search, true);
    own->serverPool.search(Search(), false);  // a controller's tree that couldn't be read
    own->serverPool.moreResults();
    EXPECT_TRUE(own->serverPool.findSources(first.address(), someHash));
    EXPECT_TRUE(own->serverPool.requestCallback(loopbackIp, first.port(), 0x112233));
    for (const std::string& body : {opcode(OP_SEARCH, tree), opcode(OP_ALTERNATE_SEARCH, tree),
                                    opcode(OP_SEARCH), opcode(OP_MORE_RESULTS), opcode(OP_GET_SOURCES, hash),
                                    opcode(OP_REQUEST_CALLBACK, le32(0x112233))}) {
        EXPECT_EQ(first.packet(), body);
    }
    first.close();
    EXPECT_EQ(log.until("[disconnected]\n"), "[disconnected]\n");
    drain();
    EXPECT_EQ(log.take(), "") << "a connection that was logged on is not replaced by itself";
}

TEST_F(Servers, EachMessageHasItsEffectAndNothingElse) {
    writeFile("filters.txt", "spam\n");
    own->clientApp.filter().load(systemDisk(), "filters.txt");
    logOn(first);
    const struct {
        u32 opcode;
        std::string payload;
        std::string told;
    } rows[] = {
        {5, std::string(9 << 20, 'x'), "Either your client or the server is out of date.\n"},
        {50, le8(4) + le32(16) + le16(1) + le32(0) + le16(1) + le32(2) + le16(0) + le32(16) + le16(1), ""},
        {51, le32(2) + named("a") + named("some spam") + "\1", "[results 1 more 1]\n"},
        {53, le32(0xFFFFFF) + le16(1), ""},
        {56, text16("%s%n"), "%s%n\n"},
        {66, hash + "\3short", ""},  // for a file that isn't downloaded, the rest isn't read
        {65, namedRecord(someHash, 0x09090909, 99, "new name"), "[connected new name]\n"},
        {67, le32(1) + named("u"), "[users 1]\n"},
        {67, le32(0) + hash + le8(0), "[users 0]\n"},
        {68, "", "Unknown msg from Connection: 68\n"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(heard(first, opcode(row.opcode, row.payload)), row.told) << row.opcode;
    own->clientApp.filter().load(systemDisk(), "no filters");
    // Its description goes to the entry of the address that we connected to, not of the address it names.
    ASSERT_EQ(own->serverPool.servers().count(), 2u);
    EXPECT_EQ(own->serverPool.servers().get(1)->ip, loopbackIp);
    EXPECT_EQ(own->serverPool.servers().get(1)->port, first.port());
    EXPECT_STREQ(own->serverPool.servers().get(1)->getText(TAG_NAME), "new name");
    // An endless number of servers.
    for (u32 turn = 0; turn < 41; ++turn) {
        std::string list = le8(255);
        for (u32 i = 0; i < 255; ++i) list += le32(0x100 * turn + i + 1) + le16(4661);
        first.say(opcode(OP_SERVER_LIST, list));
    }
    heard(first, opcode(OP_CALLBACK_FAILED, le32(12)));
    EXPECT_EQ(own->serverPool.servers().count(), 10'000u);
}

TEST_F(Servers, CallsWhomeverItIsAskedToCall) {
    logOn(first);
    const std::string call = opcode(OP_CALLBACK_ASKED, le32(loopbackIp) + le16(second.port()));
    first.say(call);
    ASSERT_TRUE(second.accept());
    EXPECT_EQ(second.packet().substr(0, 2), "\x01\x10");
    second.say(opcode(76, namedRecord(hashOf(7), loopbackIp, second.port(), "u") + le32(0) + le16(0)));
    // A changed ID goes to all who are connected, and so does being asked to call one of them.
    for (const std::string& packet : {opcode(OP_CLIENT_ID, le32(0x08070605)), call}) {
        first.say(packet);
        EXPECT_EQ(second.packet(), opcode(OP_NEW_IDENTITY, le32(0x08070605) + le32(loopbackIp)));
    }
    second.close();
    EXPECT_TRUE(eventually([] { return own->clientApp.socketPool.count == 2; }));
}

TEST_F(Servers, PublishesEachFileOnceToEachServer) {
    own->hashThread.hashDirs({});
    ASSERT_TRUE(eventually([] { return own->hashThread.isFinished(); }));
    FileMeta files[2];
    std::string records[2];
    for (u8 i = 0; i < 2; ++i) {
        files[i].setName("x");
        files[i].hash = hashOf(i + 1);
        records[i] = namedRecord(files[i].hash, 0, 0, "x");
    }
    own->clientApp.shared.add(&files[0]);
    logOn(first);
    EXPECT_EQ(first.packet(), opcode(OP_PUBLISH_FILES, le32(1) + records[0]));
    own->clientApp.shared.add(&files[1]);
    own->clientApp.publish();
    EXPECT_EQ(first.packet(), opcode(OP_PUBLISH_FILES, le32(1) + records[1]));
    own->clientApp.publish();
    own->serverPool.moreResults();
    EXPECT_EQ(first.packet(), opcode(OP_MORE_RESULTS)) << "nothing new was there to offer";
    first.close();
    log.until("[disconnected]\n");
    drain();
    logOn(first);
    EXPECT_EQ(first.packet(), opcode(OP_PUBLISH_FILES, le32(2) + records[0] + records[1]));
    own->clientApp.shared.clear();
    own->hashThread.stop();
}

TEST_F(Servers, WhatCantBeReadEndsTheConnection) {
    ASSERT_TRUE(connectTo(first));
    first.packet();
    first.send("\xE3" + le32(0x10001));  // too long for an answer to the log-on
    EXPECT_TRUE(first.isEnded());
    log.until(failed);
    ASSERT_TRUE(eventually([] { return own->messageQ.process(); })) << "the next server is to be tried";
    for (const std::string& bytes :
         {framed(opcode(OP_SERVER_LIST, "\2" + le32(1) + le16(1))),  // the complete pair counts
          framed(opcode(OP_SEARCH_RESULTS, le32(0x7FFFFFFF) + named("name"))),
          framed(opcode(OP_SERVER_IDENT, named("name").substr(0, 33))), "\xE3" + le32((16 << 20) + 1)}) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        logOn(first);
        first.send(bytes);
        EXPECT_TRUE(first.isEnded());
        log.until("[disconnected]\n");
    }
    EXPECT_EQ(own->serverPool.servers().count(), 1u);
}

TEST_F(Servers, AreTriedByRatingUntilOneLogsItOn) {
    FakeServer shut;
    shut.stopListening();
    know(second, 300);
    know(first, 200);
    know(shut, 100);
    own->serverPool.connect(nullptr);
    EXPECT_EQ(log.until(failed), connecting + failed);
    ASSERT_TRUE(eventually([] { return own->messageQ.process(); }));
    ASSERT_TRUE(first.accept());
    EXPECT_EQ(first.packet().at(0), 1);
    const ServerAddress other = second.address();
    own->serverPool.connect(&other);
    EXPECT_EQ(log.take(), connecting + queued + "Already trying to connect.\n");
    first.send("\xE3\x05");  // ends within its answer
    first.close();
    EXPECT_EQ(log.until(failed), "[disconnected]\n" + failed);
    ASSERT_TRUE(eventually([] { return own->messageQ.process(); }));
    ASSERT_TRUE(second.accept());
    EXPECT_EQ(second.packet().at(0), 1);
}

TEST_F(Servers, AnAttemptThatTheUserGaveUpComesToNothing) {
    own->serverPool.connect(nullptr);
    EXPECT_EQ(log.take(), "") << "an empty list";
    ASSERT_TRUE(connectTo(first));
    EXPECT_EQ(first.packet().at(0), 1);
    own->serverPool.disconnect();
    EXPECT_TRUE(first.isEnded());
    log.until("[disconnected]\n");
    EXPECT_FALSE(own->messageQ.process()) << "the user gave up: nothing else is tried";

    worker->stop();  // the attempts stay pending
    const ServerAddress targets[] = {first.address(), second.address()};
    own->serverPool.connect(&targets[0]);
    own->serverPool.disconnect();
    own->serverPool.connect(&targets[1]);
    worker->start();
    ASSERT_TRUE(second.accept());
    EXPECT_EQ(second.packet().at(0), 1);
    EXPECT_TRUE(first.isAlone());
    EXPECT_EQ(log.until(queued), connecting + connecting + queued);
    EXPECT_FALSE(own->messageQ.process()) << "nothing has failed";
}

TEST_F(Servers, AnotherTargetReplacesTheConnection) {
    logOn(first);
    own->serverPool.connect(nullptr);
    const ServerAddress same = first.address();
    own->serverPool.connect(&same);
    EXPECT_EQ(log.take(), "Already Connected.\nAlready connected to that server.\n");
    ASSERT_TRUE(connectTo(second));
    EXPECT_TRUE(first.isEnded());
    EXPECT_EQ(second.packet().at(0), 1);
    EXPECT_EQ(log.take(), "[disconnected]\n" + connecting + queued);
    EXPECT_EQ(own->serverPool.currentAddress(), second.address());
    EXPECT_FALSE(own->messageQ.process());
}

TEST_F(Servers, SourcesAndCallbacksGoToTheServerThatIsMeant) {
    logOn(first);
    EXPECT_TRUE(own->serverPool.findSources(second.address(), someHash));
    EXPECT_EQ(second.datagram(), "\xE3\x9A" + hash);
    EXPECT_TRUE(own->serverPool.requestCallback(loopbackIp, second.port(), 0x112233));
    EXPECT_EQ(second.datagram(), "\xE3\x9C" + le32(0x04030201) + le16(4662) + le32(0x112233));

    FakeServer silent;
    know(silent, 0);
    know(second, 100);
    own->serverPool.tick(1);
    know(second, 100);
    EXPECT_EQ(second.datagram().substr(0, 2), "\xE3\x96");
    std::vector<ServerAsk> servers;
    own->serverPool.listSourceServers(servers);
    ASSERT_EQ(servers.size(), 2u) << "the current one though it isn't listed, and the one that answers";
    EXPECT_EQ(servers[1].address, second.address());
    EXPECT_EQ(servers[1].timer, ServerAsk::pause) << "due from the next tick on";
}

TEST_F(Servers, AnExtendedSearchWalksTheOthers) {
    FakeServer third;
    know(second, 10);
    know(first, 20);
    know(third, 30);
    logOn(first);
    own->serverPool.extendSearch(search, false);
    EXPECT_EQ(second.datagram(), "\xE3\x98" + tree);
    own->serverPool.extendSearch(search, true);
    EXPECT_EQ(third.datagram(), "\xE3\x9D" + tree);
    own->serverPool.extendSearch(search, false);
    EXPECT_EQ(log.take(), "[extending 127.0.0.1]\n[extending 127.0.0.1]\nNo more servers to extend to.\n");
    own->serverPool.search(search, false);
    own->serverPool.extendSearch(search, false);
    EXPECT_EQ(second.datagram(), "\xE3\x98" + tree) << "a new search begins anew";
}

TEST_F(Servers, ADatagramsSenderCountsAndWhatCantBeReadCostsOnlyItself) {
    std::filesystem::create_directories(own->preferences.tempDir().c_str());
    own->dlPool.add(*makeFile("film", 1000, 'h'));
    const Ref<Download> download = own->dlPool.find(someHash);
    ASSERT_TRUE(download);
    own->dlPool.tick(60'000);
    const auto sources = [&] {
        const i4_guard guard(download->stateLock());
        const LL<FileSource>* list = download->state().getSources();
        return list ? list->count() : 0;
    };
    know(first, 0);
    own->serverPool.tick(1);
    const std::string ping = first.datagram();
    ASSERT_EQ(ping.size(), 6u);
    EXPECT_EQ(ping.substr(0, 2), "\xE3\x96");
    const auto rating = [&] {
        const i4_guard guard(own->serverPool.servers());
        return own->serverPool.servers().find(loopbackIp, first.port())->rating;
    };
    const std::string answer = "\xE3\x97" + ping.substr(2) + le32(3) + le32(4);
    const std::string result = "\xE3\x99" + named("found");
    const std::string found = "\xE3\x9B" + hash + "\1";
    first.replyFrom(second.datagrams(), answer);
    first.replyFrom(second.datagrams(), found + le32(0x0A000001) + le16(4662));
    first.reply(answer.substr(0, answer.size() - 1));
    first.reply(result.substr(0, result.size() - 1));
    first.reply("\xE3\xC8");
    EXPECT_EQ(log.until("ExServer Unknown Msg: 200\n").find("[result"), std::string::npos);
    EXPECT_EQ(rating(), 0u);
    EXPECT_EQ(sources(), 0U);
    first.reply(answer);
    first.reply(found + le32(0x0A000002) + le16(4662));
    EXPECT_TRUE(eventually([&] { return rating() > 0 && sources() == 1; }));
    first.reply(result);
    log.until("[result found]\n");
    download->cancel();
    drain();
}

// --- The list, with the test's own clock

class ServerListUpkeep : public testing::Test, protected OwnEngine {
  protected:
    ServerMeta* entry(u32 ip) {
        const i4_guard guard(pool.servers());
        return pool.servers().find(ip, 4661);
    }
    // Pings all servers once.
    void round() { pool.tick(1'800'001); }
    ServerPool pool{engine.serverNeeds};
};

TEST_F(ServerListUpkeep, AServerIsPingedAtOnceAndThenEveryHalfHour) {
    EXPECT_TRUE(pool.addServer(ipA, 4661));
    EXPECT_TRUE(pool.addServer(ipA, 4661));
    EXPECT_FALSE(pool.addServer(0, 4661));
    EXPECT_FALSE(pool.addServer(ipB, 0));
    EXPECT_EQ(pool.servers().count(), 1u);
    const std::pair<i32, u32> ticks[] = {{1, 1}, {1'800'000, 1}, {1, 2}};  // ms, pings so far
    for (const auto& [ms, pings] : ticks) {
        pool.tick(ms);
        EXPECT_EQ(entry(ipA)->history, pings);
    }
    pool.gotPing(ipA, 4661, 0, 10, 20);
    EXPECT_EQ(entry(ipA)->history, 0u) << "an answer within the millisecond is an answer";
    EXPECT_EQ(entry(ipA)->rating, 2099998u);
    pool.gotPing(ipA, 4661, 2'147'483'647, 1, 1);
    EXPECT_LT(entry(ipA)->rating, 2000000u) << "a forged stamp doesn't make a server the best";
    pool.gotPing(ipA, 4661, -5, 1, 1);
    EXPECT_EQ(entry(ipA)->ping, 2);
    pool.gotPing(ipB, 4661, 5, 1, 1);
    EXPECT_EQ(pool.servers().count(), 1u);
    round();
    EXPECT_EQ(entry(ipA)->rating, 0u) << "until it answers again";
}

TEST_F(ServerListUpkeep, ASilentServerGoesWhenItsSeventhPingIsDue) {
    for (const u32 ip : {ipA, ipB, ipC}) pool.addServer(ip, 4661);
    entry(ipB)->setPref(1);
    preferences.servRemove = 0;
    for (int i = 0; i < 8; ++i) round();
    EXPECT_EQ(pool.servers().count(), 3u) << "unless the user keeps them";
    entry(ipA)->history = 6;
    entry(ipC)->history = 5;
    preferences.servRemove = 1;
    round();
    EXPECT_EQ(entry(ipA), nullptr);
    EXPECT_EQ(entry(ipC)->history, 5u) << "the walk ended with the first";
    round();
    EXPECT_EQ(entry(ipC)->history, 6u);
    round();
    EXPECT_EQ(entry(ipC), nullptr);
    for (int i = 0; i < 20; ++i) round();
    ASSERT_NE(entry(ipB), nullptr) << "preferred servers stay";
}

TEST_F(ServerListUpkeep, WhatAServerTellsAndWhatAListBringsLeaveOurMeasurements) {
    pool.addServer(ipA, 4661);
    entry(ipA)->setPing(50);
    entry(ipA)->history = 3;
    entry(ipA)->setPref(2);
    ServerMeta told;
    told.ip = ipA;
    told.port = 4661;
    told.setName("told");
    told.setPref(1);
    told.history = 99;
    pool.gotServerInfo(told);
    writeFile(directory.file("more.met"),
              "\x0E" + le32(2) + le32(ipA) + le16(4661) + le32(0) + le32(ipC) + le16(4661) + le32(0));
    pool.merge(directory.file("more.met").c_str());
    EXPECT_EQ(entry(ipA)->rating, 1099950u);
    EXPECT_EQ(entry(ipA)->history, 3u);
    EXPECT_STREQ(entry(ipA)->getText(TAG_NAME), "told");
    EXPECT_EQ(entry(ipC)->idleTime, 1'800'000u);
    told.ip = ipB;
    pool.gotServerInfo(told);
    EXPECT_EQ(entry(ipB)->pref, 0u) << "a stranger doesn't choose its preference";
    EXPECT_EQ(entry(ipB)->idleTime, 1'800'000u);
}

}  // namespace
