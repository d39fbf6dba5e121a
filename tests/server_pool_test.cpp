// The upkeep of the server list by a clock of the test's own; which server is connected to, and what goes to
// the others by datagram.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "download/DLPool.h"
#include "download/FileSource.h"
#include "tests/support/ServerWorld.h"

namespace {

constexpr u32 ipA = 0x0101010A;
constexpr u32 ipB = 0x0201010A;
constexpr u32 ipC = 0x0301010A;

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
    const std::pair<i32, u32> ticks[] = {{1, 1}, {1'800'000, 1}, {1, 2}};  // ms, pings so far
    for (const auto& [ms, pings] : ticks) {
        pool.tick(ms);
        EXPECT_EQ(entry(ipA)->history, pings);
    }
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
    for (const u32 ip : {ipA, ipB, ipC}) pool.addServer(ip, 4661);
    entry(ipB)->setPref(1);
    preferences.servRemove = 0;
    for (int i = 0; i < 8; ++i) round();
    EXPECT_EQ(pool.servers().count(), 3u);
    EXPECT_EQ(entry(ipA)->history, 8u);
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
    pool.removeServer(ipB, 1);
    pool.removeServer(ipB, 4661);
    EXPECT_EQ(pool.servers().count(), 0u);
}

TEST_F(ServerListUpkeep, WhatAServerTellsAndWhatAListBringsLeaveOurMeasurements) {
    pool.addServer(ipA, 4661);
    entry(ipA)->setPing(50);
    entry(ipA)->history = 3;
    entry(ipA)->setPref(2);
    entry(ipA)->setCounts(5, 6);
    ServerMeta told;
    told.ip = ipA;
    told.port = 4661;
    told.setName("told");
    told.setPref(1);
    told.history = 99;
    pool.gotServerInfo(told);
    const TemporaryDirectory home;
    std::ofstream(home.file("more.met"), std::ios::binary)
        << "\x0E" + le32(2) + le32(ipA) + le16(4661) + le32(0) + le32(ipC) + le16(4661) + le32(0);
    pool.merge(home.file("more.met").c_str());
    pool.merge(home.file("missing").c_str());
    EXPECT_EQ(entry(ipA)->rating, 1099950u);
    EXPECT_EQ(entry(ipA)->history, 3u);
    EXPECT_EQ(entry(ipA)->getFiles(), 6u);
    EXPECT_STREQ(entry(ipA)->getText(TAG_NAME), "told");
    EXPECT_EQ(entry(ipC)->idleTime, 1'800'000u);
    told.ip = ipB;
    pool.gotServerInfo(told);
    EXPECT_EQ(entry(ipB)->pref, 0u) << "a stranger doesn't choose its preference";
    EXPECT_EQ(entry(ipB)->history, 0u);
    EXPECT_EQ(entry(ipB)->idleTime, 1'800'000u);
    EXPECT_EQ(log.take(), "");
}

class Connecting : public ServerWorld {
  protected:
    // Rated so that those of a lower ping come first.
    static void know(const FakeServer& server, i32 ping) {
        serverPool.addServer(loopbackIp, server.port());
        const i4_guard guard(serverPool.servers());
        serverPool.servers().find(loopbackIp, server.port())->setPing(ping);
    }
    FakeServer first;
    FakeServer second;
    const std::string failed = "Can't connect to: 127.0.0.1\n";
    const std::string connecting = "Connecting to 127.0.0.1 ....\n";
};

TEST_F(Connecting, TriesTheServersByRatingUntilOneLogsItOn) {
    FakeServer shut;
    shut.stopListening();
    know(second, 300);
    know(first, 200);
    know(shut, 100);
    serverPool.connect(nullptr);
    EXPECT_EQ(log.until(failed), connecting + failed);
    ASSERT_TRUE(eventually([] { return messageQ.process(); }));
    ASSERT_TRUE(first.accept());
    EXPECT_EQ(first.packet().at(0), 1);
    serverPool.connect(nullptr);
    EXPECT_NE(log.take().find("Already Connected.\n"), std::string::npos);
    const ServerAddress other = second.address();
    serverPool.connect(&other);
    EXPECT_EQ(log.take(), "Already trying to connect.\n");
    EXPECT_TRUE(second.isAlone());
    first.send("\xE3\x05");  // dies within its answer
    first.close();
    EXPECT_EQ(log.until(failed), "[disconnected]\n" + failed);
    ASSERT_TRUE(eventually([] { return messageQ.process(); }));
    ASSERT_TRUE(second.accept());
    second.close();
    log.until(failed);
    ASSERT_TRUE(eventually([] { return messageQ.process(); }));
    EXPECT_EQ(log.take(), "");
    serverPool.connect(nullptr);
    EXPECT_EQ(log.until(failed), connecting + failed) << "the queue had run out: it begins anew";
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

TEST_F(Connecting, AnAttemptThatTheUserGaveUpComesToNothing) {
    worker->stop();  // the attempts stay pending
    const ServerAddress targets[] = {first.address(), second.address()};
    serverPool.connect(&targets[0]);
    serverPool.disconnect();
    serverPool.connect(&targets[1]);
    worker->start();
    ASSERT_TRUE(second.accept());
    EXPECT_EQ(second.packet().at(0), 1);
    EXPECT_TRUE(first.isAlone());
    EXPECT_EQ(log.until("Placed on connection Queue.\n"),
              "Connecting to 127.0.0.1 ....\nConnecting to 127.0.0.1 ....\nPlaced on connection Queue.\n");
    EXPECT_FALSE(messageQ.process()) << "nothing has failed";
    // The answer is still to come: what would be asked now could end the connection.
    EXPECT_FALSE(serverPool.findSources(targets[1], MD4Hash()));
    EXPECT_FALSE(serverPool.requestCallback(loopbackIp, second.port(), 7));
}

TEST_F(Connecting, AnotherTargetReplacesTheConnection) {
    logOn(first);
    const ServerAddress same = first.address();
    serverPool.connect(&same);
    EXPECT_EQ(log.take(), "Already connected to that server.\n");
    ASSERT_TRUE(connectTo(second));
    EXPECT_TRUE(first.isEnded());
    EXPECT_EQ(second.packet().at(0), 1);
    EXPECT_EQ(log.take(), "[disconnected]\n" + connecting + "Placed on connection Queue.\n");
    EXPECT_EQ(serverPool.currentAddress(), second.address());
    EXPECT_FALSE(messageQ.process());
}

TEST_F(Connecting, SourcesAndCallbacksGoToTheServerThatIsMeant) {
    logOn(first);
    const MD4Hash wanted = hashOf('w');
    EXPECT_TRUE(serverPool.findSources(second.address(), wanted));
    EXPECT_EQ(second.datagram(), "\xE3\x9A" + bytesOf(wanted));
    EXPECT_TRUE(serverPool.requestCallback(loopbackIp, second.port(), 0x112233));
    EXPECT_EQ(second.datagram(), "\xE3\x9C" + le32(0x04030201) + le16(4662) + le32(0x112233));

    know(second, 100);
    FakeServer silent;
    know(silent, 0);
    serverPool.tick(1);
    know(second, 100);
    EXPECT_EQ(second.datagram().substr(0, 2), "\xE3\x96");
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
    serverPool.extendSearch(search, false);
    EXPECT_EQ(log.take(), "");
    FakeServer third;
    know(second, 10);
    know(first, 20);
    know(third, 30);
    logOn(first);
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

TEST_F(Connecting, APingAnswerRatesItsServerAndWhatCantBeReadCostsOnlyItself) {
    know(first, 0);
    serverPool.tick(1);
    const std::string ping = first.datagram();
    ASSERT_EQ(ping.size(), 6u);
    EXPECT_EQ(ping.substr(0, 2), "\xE3\x96");
    const auto rating = [&] {
        const i4_guard guard(serverPool.servers());
        return serverPool.servers().find(loopbackIp, first.port())->rating;
    };
    const std::string answer = "\xE3\x97" + ping.substr(2) + le32(3) + le32(4);
    const std::string result = "\xE3\x99" + namedRecord(hashOf('h'), 0, 0, "found");
    const std::string sources = "\xE3\x9B" + bytesOf(hashOf('h'));
    FakeServer stranger;
    first.replyFrom(stranger.datagrams(), answer);
    first.reply(answer.substr(0, answer.size() - 1));
    for (std::size_t length = 0; length < result.size(); ++length) first.reply(result.substr(0, length));
    for (const std::string& bad :
         {std::string("garbage"), "\xE3\x99" + std::string(22, 'h') + le32(0x7FFFFFFF), sources,
          sources + "\xFF", "\xE3\x9E" + le32(7), std::string("\xE3\x9E\x07"),
          "\xE3\x99" + std::string(4000, 'x')}) {
        first.reply(bad);
    }
    first.reply("\xE3\xC8");
    EXPECT_EQ(log.until("ExServer Unknown Msg: 200\n").find("[result"), std::string::npos);
    EXPECT_EQ(rating(), 0u);
    first.reply(answer);
    EXPECT_TRUE(eventually([&] { return rating() > 0; }));
    // A flood: what the socket's buffer holds of it is handled, and the annex goes on.
    for (int i = 0; i < 3000; ++i) first.reply("\xE3\xC8");
    EXPECT_TRUE(eventually([&] {
        first.reply(result);
        return log.take().find("[result found]") != std::string::npos;
    }));
}

TEST_F(Connecting, SourcesByDatagramComeFromServersOnTheList) {
    FileMeta file;
    file.hash = hashOf('h');
    file.setName("film");
    file.setInt(TAG_SIZE, 1000);
    std::filesystem::create_directories(preferences.tempDir().c_str());
    dlPool.add(file);
    const Ref<Download> download = dlPool.find(file.hash);
    ASSERT_TRUE(download);
    dlPool.tick(60'000);
    const auto sources = [&] {
        const i4_guard guard(download->stateLock());
        const LL<FileSource>* list = download->state().getSources();
        return list ? list->count() : 0;
    };
    know(first, 0);
    serverPool.tick(1);
    first.datagram();
    const std::string answer = "\xE3\x9B" + bytesOf(file.hash) + "\1";
    first.replyFrom(second.datagrams(), answer + le32(0x0A000001) + le16(4662));
    first.reply(answer + le32(0x0A000002) + le16(4662));
    EXPECT_TRUE(eventually([&] { return sources() > 0; }));
    EXPECT_EQ(sources(), 1U);
    download->cancel();
    drain();
}

}  // namespace
