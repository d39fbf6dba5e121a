// The connection to an index server, over loopback, with servers that the test speaks for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "app/FilterList.h"
#include "download/HashThread.h"
#include "tests/support/ServerWorld.h"

namespace {

const MD4Hash someHash = hashOf('h');
const std::string hash = bytesOf(someHash);

std::string named(const std::string& name) { return namedRecord(someHash, 0, 0, name); }

class MainServerTest : public ServerWorld {
  protected:
    // The connection still carries messages; what was told before.
    std::string stillThere() {
        server.say(opcode(52, le32(7) + le32(9)));
        std::string all = log.until("[stats 9 files 7 users]\n");
        all.resize(all.rfind("[stats"));
        return all;
    }
    std::string told(u32 number, const std::string& payload) {
        server.say(opcode(number, payload));
        return stillThere();
    }
    FakeServer server;
};

TEST_F(MainServerTest, LogsOnWithItsRecordAndTakesTheId) {
    UserMeta self;
    preferences.copySelf(self);
    ASSERT_TRUE(connectTo(server));
    EXPECT_EQ(server.packet(), opcode(1, namedRecord(self.hash, 0, 4662, "abcde")).replace(23, 1, "\2") +
                                   "\3" + text16("\x11") + le32(59));
    EXPECT_EQ(log.take(), "Connecting to 127.0.0.1 ....\nPlaced on connection Queue.\n");
    EXPECT_EQ(serverPool.currentAddress(), server.address());
    // The same ID once more: it asks for the list again.
    for (int time = 0; time < 2; ++time) {
        server.say(opcode(64, le32(0x04030201)));
        EXPECT_EQ(server.packet(), opcode(20));
        EXPECT_EQ(stillThere(), "[connected 127.0.0.1]\n");
        EXPECT_EQ(preferences.clientId(), 0x04030201u);
        EXPECT_EQ(preferences.serverIp(), loopbackIp);
        EXPECT_EQ(preferences.serverPort(), server.port());
    }
    server.close();
    EXPECT_EQ(log.until("[disconnected]\n"), "[disconnected]\n");
    EXPECT_FALSE(serverPool.mainServer());
    drain();
    EXPECT_EQ(log.take(), "") << "a connection that was logged on is not replaced by itself";
}

TEST_F(MainServerTest, EachMessageHasItsEffectAndNothingElse) {
    std::ofstream("filters.txt") << "spam\n";
    clientApp.filter().load("filters.txt");
    logOn(server);
    struct {
        u32 opcode;
        std::string payload;
        std::string told;
    } const rows[] = {
        {5, "junk", "Either your client or the server is out of date.\n"},
        {50, le8(4) + le32(16) + le16(1) + le32(0) + le16(1) + le32(2) + le16(0) + le32(16) + le16(1), ""},
        {51, le32(2) + named("a") + named("some spam") + "\1", "[results 1 more 1]\n"},
        {51, le32(0) + le8(0), "[results 0 more 0]\n"},
        {53, le32(0xFFFFFF) + le16(1), ""},
        {54, le32(12), ""},
        {56, text16("%s%n"), "%s%n\n"},
        {62, le32(1) + text16("dropped"), ""},
        {63, le8(0), ""},
        {63, "\2" + named("u"), ""},
        {66, hash, ""},  // of a file that isn't being downloaded nothing more is read
        {66, hash + "\3short", ""},
        {65, namedRecord(someHash, 0x09090909, 99, "new name"), "[connected new name]\n"},
        {67, le32(1) + named("u"), "[users 1]\n"},
        {67, le32(0) + hash + le8(0), "[users 0]\n"},
        {4, "xyz", "Unknown msg from Connection: 4\n"},
        {6, "", "Unknown msg from Connection: 6\n"},
        {68, "", "Unknown msg from Connection: 68\n"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(told(row.opcode, row.payload), row.told) << row.opcode << " " << row.payload;
    }
    clientApp.filter().load("no filters");
    // What it says of itself goes to the entry of the address that we called, not of the one it names.
    ASSERT_EQ(serverPool.servers().count(), 2u);
    EXPECT_EQ(serverPool.servers().get(1)->port, server.port());
    EXPECT_STREQ(serverPool.servers().get(1)->getText(TAG_NAME), "new name");
    // Servers without end.
    for (u32 turn = 0; turn < 41; ++turn) {
        std::string list = le8(255);
        for (u32 i = 0; i < 255; ++i) list += le32(0x100 * turn + i + 1) + le16(4661);
        server.say(opcode(50, list));
    }
    stillThere();
    EXPECT_EQ(serverPool.servers().count(), 10'000u);
}

TEST_F(MainServerTest, RequestsHaveTheirBytes) {
    EXPECT_FALSE(serverPool.findSources(server.address(), MD4Hash()));
    EXPECT_FALSE(serverPool.requestCallback(loopbackIp, server.port(), 5));
    serverPool.search(search, false);
    serverPool.moreResults();
    EXPECT_EQ(log.take(), "Not connected to a server.\nNot connected to a server.\n");

    logOn(server);
    serverPool.search(search, false);
    EXPECT_EQ(server.packet(), opcode(22, tree));
    serverPool.search(search, true);
    EXPECT_EQ(server.packet(), opcode(26, tree));
    serverPool.search(Search(), false);
    EXPECT_EQ(server.packet(), opcode(22)) << "a controller's tree that couldn't be read";
    serverPool.moreResults();
    EXPECT_EQ(server.packet(), opcode(33));
    EXPECT_TRUE(serverPool.findSources(server.address(), someHash));
    EXPECT_EQ(server.packet(), opcode(25, hash));
    EXPECT_TRUE(serverPool.requestCallback(loopbackIp, server.port(), 0x112233));
    EXPECT_EQ(server.packet(), opcode(28, le32(0x112233)));
}

TEST_F(MainServerTest, CallsWhomeverItIsAskedToCall) {
    logOn(server);
    FakeServer caller;
    const std::string call = opcode(53, le32(loopbackIp) + le16(caller.port()));
    server.say(call);
    ASSERT_TRUE(caller.accept());
    EXPECT_EQ(caller.packet().substr(0, 2), "\x01\x10");
    // A changed ID goes to all who are connected, and so does being asked to call one of them.
    const std::string identity = opcode(77, le32(0x08070605) + le32(loopbackIp));
    server.say(opcode(64, le32(0x08070605)));
    EXPECT_EQ(caller.packet(), identity);
    server.say(call);
    EXPECT_EQ(caller.packet(), identity);
    caller.close();
    EXPECT_TRUE(eventually([] { return clientApp.socketPool.count == 2; }));
}

TEST_F(MainServerTest, PublishesEachFileOnceToEachServer) {
    hashThread.hashDirs({});
    ASSERT_TRUE(eventually([] { return hashThread.isFinished(); }));
    FileMeta files[2];
    for (FileMeta& file : files) file.setName("x");
    files[0].hash = hashOf('1');
    files[1].hash = hashOf('2');
    const std::string first = namedRecord(files[0].hash, 0, 0, "x");
    const std::string second = namedRecord(files[1].hash, 0, 0, "x");
    clientApp.shared.add(&files[0]);
    logOn(server);
    EXPECT_EQ(server.packet(), opcode(21, le32(1) + first));
    clientApp.shared.add(&files[1]);
    clientApp.publish();
    EXPECT_EQ(server.packet(), opcode(21, le32(1) + second));
    clientApp.publish();
    serverPool.moreResults();
    EXPECT_EQ(server.packet(), opcode(33)) << "nothing new was there to offer";
    server.close();
    log.until("[disconnected]\n");
    drain();
    logOn(server);
    EXPECT_EQ(server.packet(), opcode(21, le32(2) + first + second));
    clientApp.shared.clear();
    hashThread.stop();
}

// Each of these ends the connection; the client is none the worse.
TEST_F(MainServerTest, WhatCantBeReadEndsTheConnection) {
    const std::string record = named("name");
    const std::string cut = record.substr(0, record.size() - 1);
    const std::string bad[] = {
        framed(opcode(50, "\2" + le32(1) + le16(1))),  // the pair that is whole counts
        framed(opcode(51, le32(2) + record + "\1")),
        framed(opcode(51, le32(0x7FFFFFFF) + record)),
        framed(opcode(51, le32(1) + record)),
        framed(opcode(51, le32(1) + hash + le32(0) + le16(0) + le32(0xFFFFFFFF))),
        framed(opcode(52, le32(1))),
        framed(opcode(53, le32(1))),
        framed(opcode(54, le16(1))),
        framed(opcode(56, le16(100) + "short")),
        framed(opcode(62, le32(0) + le16(9))),
        framed(opcode(63)),
        framed(opcode(64, le16(1))),
        framed(opcode(65, cut)),
        framed(opcode(65, hash + le32(0) + le16(0) + le32(1) + "c")),
        framed(opcode(66, hash.substr(1))),
        framed(opcode(67, le32(1) + cut)),
        framed(""),
        "GET / HTTP",
        "\xE3" + le32((16 << 20) + 1),
    };
    for (const std::string& bytes : bad) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        logOn(server);
        server.send(bytes);
        EXPECT_TRUE(server.isEnded());
        log.until("[disconnected]\n");
        EXPECT_FALSE(serverPool.mainServer());
    }
    EXPECT_EQ(serverPool.servers().count(), 1u);
}

TEST_F(MainServerTest, ALargeMessageIsTakenOnlyBehindTheLogOn) {
    ASSERT_TRUE(connectTo(server));
    server.packet();
    server.send("\xE3" + le32(0x10001));
    EXPECT_TRUE(server.isEnded());
    log.until("Can't connect to: 127.0.0.1\n");
    ASSERT_TRUE(eventually([] { return messageQ.process(); })) << "the next server is to be tried";
    logOn(server);
    EXPECT_EQ(told(5, std::string(9 << 20, 'x')), "Either your client or the server is out of date.\n");
}

}  // namespace
