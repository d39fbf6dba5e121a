// The connection to an index server, over loopback, with servers that the test speaks for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "app/FilterList.h"
#include "download/HashThread.h"
#include "tests/support/ServerWorld.h"

namespace {

const std::string hash(16, 'h');

class MainServerTest : public ServerWorld {
  protected:
    MainServerTest() { log.verbose = 1; }
    // The connection still carries messages; what was told before.
    std::string stillThere() {
        server.send(Body(52).put32(7).put32(9));
        std::string all = log.until("[stats 9 files 7 users]\n");
        all.resize(all.rfind("[stats"));
        return all;
    }
    std::string told(const std::string& body) {
        server.send(body);
        return stillThere();
    }
    FakeServer server;
};

TEST_F(MainServerTest, LogsOnWithItsRecordAndTakesTheId) {
    UserMeta self;
    preferences.copySelf(self);
    preferences.doorPort = 4662;
    ASSERT_TRUE(connectTo(server));
    const std::string own(reinterpret_cast<const char*>(self.hash.bytes.data()), 16);
    Body tags(2);
    tags.put16(1).put8(1).text("abcde").put8(3).put16(1).put8(0x11).put32(0x3B);
    EXPECT_EQ(server.read(51), std::string("\xE3\x2E\0\0\0\x01", 6) + own + std::string(4, '\0') +
                                   std::string("\x36\x12\x02\0\0\0", 6) +
                                   static_cast<const std::string&>(tags));
    EXPECT_EQ(log.take(), "Connecting to 127.0.0.1 ....\nPlaced on connection Queue.\n");
    EXPECT_TRUE(serverPool.mainServer());
    EXPECT_EQ(serverPool.currentAddress(), server.address());

    server.send(Body(64).put32(0x04030201));
    EXPECT_EQ(server.packet(), std::string(1, 20));
    EXPECT_EQ(stillThere(), "[connected 127.0.0.1]\n");
    EXPECT_EQ(preferences.clientId(), 0x04030201u);
    EXPECT_EQ(preferences.serverIp(), loopbackIp);
    EXPECT_EQ(preferences.serverPort(), server.port());
    // The same once more: it asks for the list again.
    server.send(Body(64).put32(0x04030201));
    EXPECT_EQ(server.packet(), std::string(1, 20));

    server.hangUp();
    EXPECT_EQ(log.until("[disconnected]\n"), "[connected 127.0.0.1]\n[disconnected]\n");
    EXPECT_FALSE(serverPool.mainServer());
    drain();
    EXPECT_EQ(log.take(), "") << "a connection that was logged on is not replaced by itself";
}

TEST_F(MainServerTest, EachMessageHasItsEffectAndNothingElse) {
    logOn(server);
    EXPECT_EQ(told(Body(5).raw("junk")), "Either your client or the server is out of date.\n");
    EXPECT_EQ(told(Body(56).text("hello")), "hello\n");
    EXPECT_EQ(told(Body(56).text("")), "\n");
    EXPECT_EQ(told(Body(56).text("%s%n")), "%s%n\n");
    EXPECT_EQ(told(Body(62).put32(1).text("dropped")), "");
    EXPECT_EQ(told(Body(63).put8(0)), "");
    EXPECT_EQ(told(Body(63).put8(2).raw(namedRecord(hash, 1, 2, "u"))), "");
    EXPECT_EQ(told(Body(54).put32(12)), "");
    for (const int unknown : {0, 4, 6, 20, 68, 255}) {
        EXPECT_EQ(told(Body(static_cast<u8>(unknown)).raw("xyz")),
                  "Unknown msg from Connection: " + std::to_string(unknown) + "\n");
    }
    EXPECT_EQ(
        told(Body(51).put32(2).raw(namedRecord(hash, 0, 0, "a")).raw(namedRecord(hash, 0, 0, "b")).put8(1)),
        "[results 2 more 1]\n");
    EXPECT_EQ(told(Body(51).put32(0).put8(0)), "[results 0 more 0]\n");
    EXPECT_EQ(told(Body(67).put32(1).raw(namedRecord(hash, 1, 2, "u"))), "[users 1]\n");
    EXPECT_EQ(told(Body(67).put32(0).raw(hash).put8(0)), "[users 0]\n") << "with a tail";
    EXPECT_EQ(told(Body(66).raw(hash)), "") << "of a file that isn't being downloaded nothing more is read";
    EXPECT_EQ(told(Body(66).raw(hash).put8(3).raw("short")), "");
    EXPECT_EQ(told(Body(53).put32(0xFFFFFF).put16(1)), "");

    EXPECT_EQ(told(Body(50)
                       .put8(4)
                       .put32(0x01010101)
                       .put16(4661)
                       .put32(0)
                       .put16(1)
                       .put32(2)
                       .put16(0)
                       .put32(0x01010101)
                       .put16(4661)),
              "");
    EXPECT_EQ(serverPool.servers().count(), 1u);
}

TEST_F(MainServerTest, WhatAServerSaysOfItselfGoesToTheEntryOfItsRealAddress) {
    serverPool.addServer(loopbackIp, server.port());
    serverPool.servers().get(0)->setPref(1);
    serverPool.servers().get(0)->setPing(20);
    serverPool.servers().get(0)->setCounts(3, 4);
    serverPool.servers().get(0)->setName("old name");
    logOn(server);
    EXPECT_EQ(told(Body(65).raw(namedRecord(hash, 0x09090909, 99, "new name"))), "[connected new name]\n");
    ASSERT_EQ(serverPool.servers().count(), 1u);
    const ServerMeta& entry = *serverPool.servers().get(0);
    i4_string name;
    EXPECT_STREQ(entry.getName(name), "new name");
    EXPECT_EQ(entry.port, server.port());
    EXPECT_EQ(entry.ping, 20);
    EXPECT_EQ(entry.pref, 1u);
    EXPECT_EQ(entry.getUsers(), 3u);
    EXPECT_EQ(entry.rating, 3099980u);
}

TEST_F(MainServerTest, ResultsAreFiltered) {
    std::filesystem::create_directories(home->path());
    FILE* file = std::fopen("filters.txt", "w");
    ASSERT_NE(file, nullptr);
    std::fputs("spam\n", file);
    std::fclose(file);
    clientApp.filter().load("filters.txt");
    logOn(server);
    EXPECT_EQ(told(Body(51)
                       .put32(2)
                       .raw(namedRecord(hash, 0, 0, "some spam"))
                       .raw(namedRecord(hash, 0, 0, "b"))
                       .put8(0)),
              "[results 1 more 0]\n");
    std::filesystem::remove("filters.txt");
    clientApp.filter().load("filters.txt");
}

TEST_F(MainServerTest, RequestsHaveTheirBytes) {
    EXPECT_FALSE(serverPool.findSources(server.address(), MD4Hash()));
    EXPECT_FALSE(serverPool.requestCallback(loopbackIp, server.port(), 5));
    Search search;
    search.add(std::make_unique<SN_FindStr>("film"), 0);
    serverPool.search(search, false);
    serverPool.moreResults();
    EXPECT_EQ(log.take(), "Not connected to a server.\nNot connected to a server.\n");

    logOn(server);
    const std::string tree = std::string("\x01\x04\0film", 7);
    serverPool.search(search, false);
    EXPECT_EQ(server.packet(), "\x16" + tree);
    serverPool.search(search, true);
    EXPECT_EQ(server.packet(), "\x1A" + tree);
    serverPool.moreResults();
    EXPECT_EQ(server.packet(), "!");
    MD4Hash wanted;
    wanted.bytes.fill('w');
    EXPECT_TRUE(serverPool.findSources(server.address(), wanted));
    EXPECT_EQ(server.packet(), "\x19" + std::string(16, 'w'));
    EXPECT_TRUE(serverPool.requestCallback(loopbackIp, server.port(), 0x112233));
    EXPECT_EQ(server.packet(), std::string("\x1C\x33\x22\x11\0", 5));
}

TEST_F(MainServerTest, CallsWhomeverItIsAskedToCall) {
    logOn(server);
    FakeServer caller;
    server.send(Body(53).put32(loopbackIp).put16(caller.port()));
    ASSERT_TRUE(caller.accept());
    EXPECT_EQ(caller.packet().substr(0, 2), "\x01\x10");
    // A changed ID goes to all who are connected, and so does being asked to call one of them.
    server.send(Body(64).put32(0x08070605));
    EXPECT_EQ(caller.packet(), static_cast<const std::string&>(Body(77).put32(0x08070605).put32(loopbackIp)));
    server.send(Body(53).put32(loopbackIp).put16(caller.port()));
    EXPECT_EQ(caller.packet(), static_cast<const std::string&>(Body(77).put32(0x08070605).put32(loopbackIp)));
    caller.hangUp();
    EXPECT_TRUE(eventually([] { return clientApp.socketPool.count == 2; }));
}

TEST_F(MainServerTest, PublishesEachFileOnceToEachServer) {
    hashThread.hashDirs({});
    ASSERT_TRUE(eventually([] { return hashThread.isFinished(); }));
    FileMeta first;
    first.setName("first");
    first.hash.bytes.fill('1');
    FileMeta second;
    second.setName("second");
    second.hash.bytes.fill('2');
    clientApp.shared.add(&first);
    const auto offer = [](const std::string& body) {
        i4_ram_file_class stream(nullptr, 0, 0);
        std::string bytes = body.substr(1);
        stream.reset(reinterpret_cast<u8*>(bytes.data()), static_cast<u32>(bytes.size()), 0);
        FileList list;
        EXPECT_EQ(body.at(0), 21);
        EXPECT_TRUE(list.fromNetwork(stream));
        EXPECT_EQ(stream.bytesLeft(), 0u);
        std::string names;
        for (const FileMeta* file : list.snapshot()) names += std::string(file->getName()) + " ";
        list.deleteAll();
        return names;
    };
    logOn(server);
    EXPECT_EQ(offer(server.packet()), "first ");
    clientApp.shared.add(&second);
    clientApp.publish();
    EXPECT_EQ(offer(server.packet()), "second ");
    clientApp.publish();
    serverPool.moreResults();
    EXPECT_EQ(server.packet(), "!") << "nothing new was there to offer";
    server.hangUp();
    log.until("[disconnected]\n");
    drain();
    logOn(server);
    EXPECT_EQ(offer(server.packet()), "first second ");
    clientApp.shared.clear();
    hashThread.stop();
}

// Each of these ends the connection; the client is none the worse.
TEST_F(MainServerTest, WhatCantBeReadEndsTheConnection) {
    const std::string record = namedRecord(hash, 1, 2, "name");
    const std::string cut = record.substr(0, record.size() - 1);
    const std::string bad[] = {
        framed(Body(50).put8(2).put32(1).put16(1)),
        framed(Body(51).put32(2).raw(record).put8(0)),
        framed(Body(51).put32(0x7FFFFFFF).raw(record)),
        framed(Body(51).put32(1).raw(record)),
        framed(Body(51).put32(1).raw(hash).put32(0).put16(0).put32(0xFFFFFFFF)),
        framed(Body(52).put32(1)),
        framed(Body(53).put32(1)),
        framed(Body(54).put16(1)),
        framed(Body(56).put16(100).raw("short")),
        framed(Body(62).put32(0).put16(9)),
        framed(Body(63)),
        framed(Body(64).put16(1)),
        framed(Body(65).raw(cut)),
        framed(Body(65).raw(hash).put32(0).put16(0).put32(1).put8(99)),
        framed(Body(66).raw(hash.substr(1))),
        framed(Body(67).put32(1).raw(cut)),
        framed(""),
        "GET / HTTP",
        std::string("\xE3\x01\0\0\x01", 5),  // 16 MiB and one byte
    };
    for (const std::string& bytes : bad) {
        SCOPED_TRACE(testing::PrintToString(bytes));
        logOn(server);
        server.raw(bytes);
        EXPECT_TRUE(server.isEnded());
        log.until("[disconnected]\n");
        EXPECT_FALSE(serverPool.mainServer());
    }
    EXPECT_EQ(serverPool.servers().count(), 1u) << "the pair that was whole";
}

TEST_F(MainServerTest, ALargeMessageIsTakenOnlyBehindTheLogOn) {
    ASSERT_TRUE(connectTo(server));
    server.raw(std::string("\xE3\x01\0\x01\0", 5));
    EXPECT_EQ(server.read(51).size(), 51u);
    EXPECT_TRUE(server.isEnded());
    log.until("Can't connect to: 127.0.0.1\n");
    drain();
    logOn(server);
    EXPECT_EQ(told(Body(5).raw(std::string(9 << 20, 'x'))),
              "Either your client or the server is out of date.\n");
}

}  // namespace
