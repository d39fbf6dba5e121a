// The upkeep of the server list by a clock of the test's own; which server is connected to, and what goes to
// the others by datagram.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "meta/address.h"
#include "tests/support/ServerWorld.h"

namespace {

constexpr u32 ipA = 0x0101010A;
constexpr u32 ipB = 0x0201010A;

class ServerListUpkeep : public testing::Test {
  protected:
    ~ServerListUpkeep() override { preferences.servRemove = 1; }
    ServerMeta* entry(u32 ip) {
        const i4_guard guard(pool.servers());
        return pool.servers().find(ip, 4661);
    }
    // One round of pings.
    void round() { pool.tick(1'800'001); }
    ServerPool pool;
    CapturedLog log;
};

TEST_F(ServerListUpkeep, AServerIsPingedAtOnceAndThenEveryHalfHour) {
    EXPECT_TRUE(pool.addServer(ipA, 4661));
    EXPECT_TRUE(pool.addServer(ipA, 4661));
    EXPECT_FALSE(pool.addServer(0, 4661));
    EXPECT_FALSE(pool.addServer(ipB, 0));
    EXPECT_EQ(pool.servers().count(), 1u);
    pool.tick(1);
    EXPECT_EQ(entry(ipA)->history, 1u);
    EXPECT_EQ(entry(ipA)->idleTime, 0u);
    pool.tick(1'800'000);
    EXPECT_EQ(entry(ipA)->history, 1u) << "not yet";
    pool.tick(1);
    EXPECT_EQ(entry(ipA)->history, 2u);

    pool.gotPing(ipA, 4661, 0, 10, 20);
    EXPECT_EQ(entry(ipA)->history, 0u) << "an answer within the millisecond is an answer";
    EXPECT_EQ(entry(ipA)->rating, 2099998u);
    EXPECT_EQ(entry(ipA)->getUsers(), 10u);
    pool.gotPing(ipA, 4661, 2'147'483'647, 1, 1);
    EXPECT_LT(entry(ipA)->rating, 2000000u) << "a forged stamp doesn't make a server the best";
    pool.gotPing(ipA, 4661, -5, 1, 1);
    EXPECT_EQ(entry(ipA)->ping, 2);
    pool.gotPing(ipB, 4661, 5, 1, 1);
    EXPECT_EQ(pool.servers().count(), 1u);
    round();
    EXPECT_EQ(entry(ipA)->rating, 0u) << "until it answers again";
    EXPECT_EQ(entry(ipA)->getUsers(), 0u);
}

TEST_F(ServerListUpkeep, ASilentServerGoesWhenItsSeventhPingIsDue) {
    for (const u32 ip : {ipA, ipB, ipA + 1}) pool.addServer(ip, 4661);
    entry(ipB)->setPref(1);
    preferences.servRemove = 0;
    for (int i = 0; i < 8; ++i) round();
    EXPECT_EQ(pool.servers().count(), 3u);
    EXPECT_EQ(entry(ipA)->history, 8u);
    entry(ipA)->history = 6;
    entry(ipA + 1)->history = 5;
    preferences.servRemove = 1;
    round();
    EXPECT_EQ(entry(ipA), nullptr);
    EXPECT_EQ(entry(ipA + 1)->history, 5u) << "the walk ended with the first";
    round();
    EXPECT_EQ(entry(ipA + 1)->history, 6u);
    round();
    EXPECT_EQ(entry(ipA + 1), nullptr);
    for (int i = 0; i < 20; ++i) round();
    ASSERT_NE(entry(ipB), nullptr) << "preferred servers stay";
    pool.removeServer(ipB, 1);
    pool.removeServer(ipB, 4661);
    EXPECT_EQ(pool.servers().count(), 0u);
}

TEST_F(ServerListUpkeep, WhatAServerTellsLeavesOurMeasurements) {
    pool.addServer(ipA, 4661);
    entry(ipA)->setPing(50);
    entry(ipA)->history = 3;
    entry(ipA)->setPref(2);
    entry(ipA)->setCounts(5, 6);
    ServerMeta told;
    told.setAddress("10.1.1.1", 4661);
    told.setName("told");
    told.setPref(1);
    told.history = 99;
    pool.gotServerInfo(told);
    EXPECT_EQ(entry(ipA)->rating, 1099950u);
    EXPECT_EQ(entry(ipA)->history, 3u);
    EXPECT_EQ(entry(ipA)->idleTime, 1'800'000u);
    EXPECT_EQ(entry(ipA)->getFiles(), 6u);
    i4_string name;
    EXPECT_STREQ(entry(ipA)->getName(name), "told");
    told.ip = ipB;
    pool.gotServerInfo(told);
    EXPECT_EQ(entry(ipB)->pref, 0u) << "a stranger doesn't choose its preference";
    EXPECT_EQ(entry(ipB)->history, 0u);
    EXPECT_EQ(entry(ipB)->idleTime, 1'800'000u);
}

TEST_F(ServerListUpkeep, ListsAreLoadedAndMerged) {
    const TemporaryDirectory home;
    const std::string path = home.file("more.met");
    std::ofstream(path, std::ios::binary)
        .write("\x0E\x02\0\0\0\x0A\x01\x01\x01\x35\x12\0\0\0\0\x0A\x01\x01\x02\x35\x12\0\0\0\0", 25);
    pool.addServer(ipA, 4661);
    entry(ipA)->setPing(33);
    pool.merge(path.c_str());
    EXPECT_EQ(pool.servers().count(), 2u);
    EXPECT_EQ(entry(ipA)->ping, 33);
    EXPECT_EQ(entry(ipB)->idleTime, 1'800'000u);
    pool.merge(home.file("missing").c_str());
    EXPECT_EQ(pool.servers().count(), 2u);
    EXPECT_EQ(log.take(), "");
}

class Connecting : public ServerWorld {
  protected:
    // Rated so that those of a higher number come first.
    void know(const FakeServer& server, i32 ping) {
        serverPool.addServer(loopbackIp, server.port());
        const i4_guard guard(serverPool.servers());
        serverPool.servers().find(loopbackIp, server.port())->setPing(ping);
    }
    FakeServer first;
    FakeServer second;
};

TEST_F(Connecting, TriesTheServersByRatingUntilOneLogsItOn) {
    FakeServer shut;
    shut.stopListening();
    know(second, 300);
    know(first, 200);
    know(shut, 100);
    serverPool.connect(nullptr);
    EXPECT_EQ(log.until("Can't connect to: 127.0.0.1\n"),
              "Connecting to 127.0.0.1 ....\nCan't connect to: 127.0.0.1\n");
    ASSERT_TRUE(handleNext());
    ASSERT_TRUE(first.accept());
    EXPECT_EQ(first.packet().at(0), 1);
    serverPool.connect(nullptr);
    EXPECT_NE(log.take().find("Already Connected.\n"), std::string::npos);
    const ServerAddress other = second.address();
    serverPool.connect(&other);
    EXPECT_EQ(log.take(), "Already trying to connect.\n");
    EXPECT_TRUE(second.isAlone());
    first.raw("\xE3\x05");  // dies within its answer
    first.hangUp();
    EXPECT_EQ(log.until("Can't connect to: 127.0.0.1\n"), "[disconnected]\nCan't connect to: 127.0.0.1\n");
    ASSERT_TRUE(handleNext());
    ASSERT_TRUE(second.accept());
    second.hangUp();
    log.until("Can't connect to: 127.0.0.1\n");
    ASSERT_TRUE(handleNext());
    EXPECT_EQ(log.take(), "");
    serverPool.connect(nullptr);
    EXPECT_EQ(log.until("Can't connect to: 127.0.0.1\n"),
              "Connecting to 127.0.0.1 ....\nCan't connect to: 127.0.0.1\n")
        << "the queue had run out: it begins anew";
}

TEST_F(Connecting, AnEmptyListAndAServerThatSaysNothing) {
    serverPool.connect(nullptr);
    EXPECT_EQ(log.take(), "");
    ASSERT_TRUE(connectTo(first));
    EXPECT_EQ(first.packet().at(0), 1);
    EXPECT_TRUE(serverPool.mainServer());
    serverPool.disconnect();
    EXPECT_TRUE(first.isEnded());
    log.until("[disconnected]\n");
    EXPECT_FALSE(messageQ.process()) << "the user gave up: nothing else is tried";
}

TEST_F(Connecting, AnotherTargetReplacesTheConnection) {
    logOn(first);
    const ServerAddress same = first.address();
    serverPool.connect(&same);
    EXPECT_EQ(log.take(), "Already connected to that server.\n");
    const ServerAddress other = second.address();
    serverPool.connect(&other);
    EXPECT_TRUE(first.isEnded());
    ASSERT_TRUE(second.accept());
    EXPECT_EQ(second.packet().at(0), 1);
    EXPECT_EQ(log.take(), "[disconnected]\nConnecting to 127.0.0.1 ....\nPlaced on connection Queue.\n");
    EXPECT_EQ(serverPool.currentAddress(), other);
    EXPECT_FALSE(messageQ.process());
}

TEST_F(Connecting, SourcesAndCallbacksGoToTheServerThatIsMeant) {
    logOn(first, 0x04030201);
    preferences.doorPort = 4662;
    MD4Hash wanted;
    wanted.bytes.fill('w');
    EXPECT_TRUE(serverPool.findSources(second.address(), wanted));
    EXPECT_EQ(second.datagram(), "\xE3\x9A" + std::string(16, 'w'));
    EXPECT_TRUE(serverPool.requestCallback(loopbackIp, second.port(), 0x112233));
    EXPECT_EQ(second.datagram(), std::string("\xE3\x9C\x01\x02\x03\x04\x36\x12\x33\x22\x11\0", 12));

    know(second, 100);
    FakeServer silent;
    know(silent, 100);
    {
        const i4_guard guard(serverPool.servers());
        serverPool.servers().find(loopbackIp, silent.port())->history = 1;
    }
    std::vector<ServerAsk> servers;
    serverPool.listSourceServers(servers);
    ASSERT_EQ(servers.size(), 2u) << "the current one though it isn't listed, and the one that answers";
    EXPECT_EQ(servers[0].address, first.address());
    EXPECT_EQ(servers[1].address, second.address());
    EXPECT_FALSE(servers[1].ask(wanted));
    servers[1].timer += 1;
    EXPECT_TRUE(servers[1].ask(wanted));
    EXPECT_EQ(servers[1].timer, 0);
    EXPECT_EQ(second.datagram().size(), 18u);
}

TEST_F(Connecting, AnExtendedSearchWalksTheOtherServers) {
    Search search;
    search.add(std::make_unique<SN_FindStr>("film"), 0);
    serverPool.extendSearch(search, false);
    EXPECT_EQ(log.take(), "");
    FakeServer third;
    know(second, 10);
    know(first, 20);
    know(third, 30);
    logOn(first);
    const std::string tree = std::string("\x01\x04\0film", 7);
    for (int time = 0; time < 2; ++time) {
        serverPool.search(search, false);
        serverPool.extendSearch(search, false);
        EXPECT_EQ(second.datagram(), "\xE3\x98" + tree);
        serverPool.extendSearch(search, true);
        EXPECT_EQ(third.datagram(), "\xE3\x9D" + tree);
        serverPool.extendSearch(search, false);
        serverPool.extendSearch(search, false);
        EXPECT_EQ(log.take(),
                  "[extending 127.0.0.1]\n[extending 127.0.0.1]\n"
                  "No more servers to extend to.\nNo more servers to extend to.\n");
    }
}

// --- Datagrams from servers

TEST_F(Connecting, APingAnswerRatesItsServer) {
    know(first, 0);
    serverPool.tick(1);
    const std::string ping = first.datagram();
    ASSERT_EQ(ping.size(), 6u);
    EXPECT_EQ(ping.substr(0, 2), "\xE3\x96");
    const auto rating = [&] {
        const i4_guard guard(serverPool.servers());
        return serverPool.servers().find(loopbackIp, first.port())->rating;
    };
    const std::string answer =
        static_cast<const std::string&>(Body(0xE3).put8(151).raw(ping.substr(2)).put32(3).put32(4));
    first.reply(answer.substr(0, answer.size() - 1));
    const int stranger = ::socket(AF_INET, SOCK_DGRAM, 0);
    first.replyFrom(stranger, answer);
    first.reply("\xE3");
    first.reply("garbage");
    first.reply(std::string("\xE3\x01", 2));
    log.verbose = 1;
    first.reply("\xE3\xC8");
    EXPECT_EQ(log.until("ExServer Unknown Msg: 200\n").find("garbage"), std::string::npos);
    EXPECT_EQ(rating(), 0u);
    first.reply(answer);
    EXPECT_TRUE(eventually([&] { return rating() > 0; }));
    const i4_guard guard(serverPool.servers());
    const ServerMeta* server = serverPool.servers().find(loopbackIp, first.port());
    EXPECT_EQ(server->getUsers(), 3u);
    EXPECT_EQ(server->getFiles(), 4u);
    EXPECT_EQ(server->history, 0u);
    ::close(stranger);
}

TEST_F(Connecting, DatagramsThatCantBeReadCostOnlyThemselves) {
    know(first, 0);
    serverPool.tick(1);
    first.datagram();
    log.verbose = 1;
    const std::string hash(16, 'h');
    const std::string result = Body(0xE3).put8(153).raw(namedRecord(hash, 0, 0, "found"));
    for (std::size_t length = 2; length < result.size(); ++length) first.reply(result.substr(0, length));
    first.reply(Body(0xE3).put8(153).raw(hash).put32(0).put16(0).put32(0xFFFFFFFF));
    first.reply(Body(0xE3).put8(155).raw(hash).put8(255));
    first.reply(Body(0xE3).put8(155).raw("short"));
    first.reply(Body(0xE3).put8(158).put32(7));
    first.reply(Body(0xE3).put8(158).put8(7));
    first.reply("\xE3" + std::string(4000, '\x99'));
    first.reply(result);
    const std::string all = log.until("[result found]\n");
    EXPECT_EQ(all.find("[result found]"), all.rfind("[result found]"));
    // A flood: what the socket's buffer holds of it is handled, and the annex goes on.
    for (int i = 0; i < 3000; ++i) first.reply("\xE3\xC8");
    first.reply(result);
    EXPECT_TRUE(eventually([&] {
        first.reply(result);
        return log.take().find("[result found]") != std::string::npos;
    }));
}

}  // namespace
