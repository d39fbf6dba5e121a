// Packets on a scripted socket; connections, doors and workers on loopback, with every kind of bad company.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <ctime>

#include "i4min/memory/error.h"
#include "tests/support/OpenDoor.h"
#include "tests/support/ScriptedSocket.h"
#include "tests/support/damage.h"
#include "transport/ConnectRegistry.h"
#include "transport/OpcodeTable.h"
#include "transport/Packet.h"
#include "transport/STSocketPool.h"

namespace {

constexpr u32 limit = 8 << 20;

class PacketTest : public testing::Test {
  protected:
    ~PacketTest() override { sendBudget = recvBudget = unlimitedBudget; }
    Packet::Result receive() {
        moved = 0;
        return packet.receive(socket, moved, limit);
    }
    ScriptedSocket socket;
    Packet packet;
    u32 moved = 0;
};

TEST_F(PacketTest, IsSentFromItsBufferInPiecesThatBudgetAndSocketAllow) {
    const auto opcode = packetOf("\x14");
    EXPECT_EQ(opcode->send(socket, moved), Packet::complete);
    EXPECT_EQ(socket.written, std::string("\xE3\x01\0\0\0\x14", 6));
    EXPECT_EQ(moved, 6U);

    const auto longer = packetOf("0123456789");
    const auto copy = longer->clone();
    socket.written.clear();
    socket.room = 3;
    std::vector<u32> pieces;
    sendBudget = 2;
    for (Packet::Result result = Packet::more; result == Packet::more && pieces.size() < 20;) {
        moved = 0;
        result = longer->send(socket, moved);
        pieces.push_back(moved);
        if (pieces.size() == 4) sendBudget = unlimitedBudget;
    }
    EXPECT_EQ(pieces, (std::vector<u32>{3, 4, 2, 2, 3, 1}));
    EXPECT_EQ(socket.written, framed("0123456789"));
    sendBudget = 0;
    socket.room = 100;
    EXPECT_EQ(copy->send(socket, moved), Packet::more);
    socket.room = -1;
    sendBudget = 10;
    EXPECT_EQ(copy->send(socket, moved), Packet::failed);

    Packet growing(1);
    const std::string body(3000, 'x');
    growing.stream.write(body.data(), 3000);
    growing.finish();
    socket.written.clear();
    socket.room = 4000;
    sendBudget = unlimitedBudget;
    EXPECT_EQ(growing.send(socket, moved), Packet::complete);
    EXPECT_EQ(socket.written, framed(body));
}

TEST_F(PacketTest, IsReceivedOneByteAtATime) {
    for (const char c : framed("hello")) socket.pieces.push_back(std::string(1, c));
    for (int turn = 1; turn < 9; ++turn) EXPECT_EQ(receive(), Packet::more) << turn;
    EXPECT_EQ(receive(), Packet::complete);
    EXPECT_EQ(packet.stream.read_8(), 'h');
    EXPECT_EQ(packet.stream.bytesLeft(), 4U);
    EXPECT_THROW(packet.stream.expect(5), i4_err);

    packet.reset();
    socket.pieces = {framed("ab")};
    recvBudget = 0;
    EXPECT_EQ(receive(), Packet::more);
    EXPECT_EQ(receive(), Packet::more);
    EXPECT_EQ(moved, 0U);
    recvBudget = 1;
    EXPECT_EQ(receive(), Packet::more);
    EXPECT_EQ(receive(), Packet::complete);
}

TEST_F(PacketTest, RefusesBadHeadersOnceTheyAreWhole) {
    for (const std::string& bad :
         {std::string("\xE4\x01\0\0\0", 5), std::string("\xE3\0\0\0\0", 5),
          std::string("\xE3\x01\0\x80\0", 5), std::string("\xE3\xFF\xFF\xFF\xFF", 5)}) {
        packet.reset();
        socket.pieces = {bad.substr(0, 4), bad.substr(4)};
        EXPECT_EQ(receive(), Packet::more);
        EXPECT_EQ(receive(), Packet::failed);
    }
    packet.reset();
    socket.pieces = {std::string("\xE3\0\0\x80\0", 5)};  // exactly the limit
    EXPECT_EQ(receive(), Packet::more);
}

TEST_F(PacketTest, TakesMemoryAsBytesArrive) {
    socket.pieces = {std::string("\xE3\0\0\x80\0", 5)};
    EXPECT_EQ(receive(), Packet::more);
    EXPECT_EQ(packet.stream.capacity(), 64U * 1024);
    const std::string body = someBytes(limit);
    int growths = 0;
    for (std::size_t at = 0; at < limit; at += 50'000) {
        const u32 before = packet.stream.capacity();
        socket.pieces.push_back(body.substr(at, 50'000));
        EXPECT_EQ(receive(), at + 50'000 < limit ? Packet::more : Packet::complete);
        if (packet.stream.capacity() != before) ++growths;
        EXPECT_LE(packet.stream.capacity(), std::max(64U * 1024, 4 * packet.bodyDone));
    }
    EXPECT_LE(growths, 5);
    EXPECT_EQ(std::memcmp(packet.stream.buffer(), body.data(), limit), 0);
}

TEST_F(PacketTest, DamagedBytesAreReceivedOrRefused) {
    const std::string good = framed(std::string(300, 'd'));
    sweepDamage(std::span(reinterpret_cast<const u8*>(good.data()), good.size()),
                [](std::span<const u8> bytes) {
                    ScriptedSocket bad;
                    bad.pieces = {std::string(bytes.begin(), bytes.end())};
                    Packet got;
                    u32 n = 0;
                    for (int turn = 0; turn < 4; ++turn) {
                        if (got.receive(bad, n, limit) != Packet::more) break;
                    }
                    EXPECT_LE(got.bodyDone, 305U);
                });
}

class ConversationTest : public testing::Test, protected OpenDoor<STSocketPool> {};

TEST_F(ConversationTest, CarriesMessagesInOrderBothWays) {
    Caller caller(port);
    caller.send(framed("efirst") + framed("esecond") + framed(std::string(1, 'x')));
    EXPECT_EQ(caller.read(23), framed("efirst") + framed("esecond"));
    EXPECT_TRUE(eventually([&] { return told.count() == 3; }));
    const Ref<Talker> talker = door->takeLast();
    EXPECT_EQ(talker->getText(), "127.0.0.1");
    std::thread other([&] { talker->send(packetOf("from another thread")); });
    EXPECT_EQ(caller.read(24), framed("from another thread"));
    other.join();
    const Ref<TalkerDoor> second(new TalkerDoor(&pool, port, told));
    EXPECT_FALSE(second->listen(500)) << "a taken port is told, and harms nobody";
    EXPECT_EQ(log.take(),
              "Can't Listen for connections. Please adjust your proxy settings in the options tab.\n");
    EXPECT_TRUE(door->listen(500));
    caller.send(framed("clast"));
    EXPECT_TRUE(caller.isEnded());
    EXPECT_TRUE(allGone(1));
    EXPECT_TRUE(talker->isDead());
    talker->send(packetOf("to the dead"));
    talker->close();
    EXPECT_FALSE(talker->hasToSend());
}

TEST_F(ConversationTest, WhatIsMalformedEndsItsConnectionAlone) {
    static constexpr Opcode rows[] = {{'t', "Table", Direction::in, 2, 3}};
    static constexpr OpcodeTable table(rows);
    told.table = &table;
    log.verbose = 1;
    const std::vector<std::string> bad = {
        std::string("\xE2\x01\0\0\0\x01", 6),
        std::string("\xE3\0\0\0\0", 5),
        std::string("\xE3\xFF\xFF\xFF\xFF", 5) + "body",
        std::string("\xE3\x01\0\x01\0", 5),  // above the limit for a first message
        framed("frefused"),
        framed("sshort"),
        framed("t1"),
        framed("t1234"),
        framed("good") + std::string("\xE3\x01\0\x80\0", 5),  // above the later limit
    };
    Caller bystander(port);
    bystander.send(framed("hi"));
    int ended = 0;
    for (const std::string& bytes : bad) {
        Caller caller(port);
        caller.send(bytes);
        EXPECT_TRUE(caller.isEnded());
        EXPECT_TRUE(eventually([&] { return told.ended == ended + 1 && pool.count == 2; })) << ended;
        ++ended;
    }
    EXPECT_NE(log.take().find("Exception in Connection::doTask 16777343\n"), std::string::npos);
    told.table = nullptr;
    EXPECT_TRUE(bystander.echoes("still here"));
}

TEST_F(ConversationTest, EndsAndResetsInEveryStateAreNoticed) {
    const std::string whole = framed(std::string(200'000, 'w'));
    int ended = 0;
    for (const bool resets : {false, true}) {
        for (const std::size_t length : {std::size_t{0}, std::size_t{3}, std::size_t{5}, std::size_t{6},
                                         whole.size() - 1, whole.size()}) {
            Caller caller(port);
            caller.send(framed("hi") + whole.substr(0, length));
            if (!resets) {
                caller.close();
            } else {
                EXPECT_TRUE(eventually([&] { return pool.count == 2; }));
                caller.reset();
            }
            ++ended;
            EXPECT_TRUE(allGone(ended)) << length;
        }
    }
    // A reset while we send.
    door->takeLast();
    Caller caller(port);
    const Ref<Talker> talker = arrived();
    talker->send(packetOf(std::string(15 << 20, 'o')));
    caller.read(100'000);
    caller.reset();
    EXPECT_TRUE(allGone(ended + 1));
}

TEST_F(ConversationTest, WhatStandsStillEnds) {
    told.stallLimit = 500;
    Caller half(port);
    half.send(framed("hi") + std::string("\xE3\x10\0\0\0half", 9));
    Caller silent(port);
    Caller deaf(port);
    deaf.send(framed("e" + std::string(60'000, 'd')));
    for (int i = 0; i < 50; ++i) {
        if (::send(deaf.descriptor(), framed("e" + std::string(200'000, 'd')).data(), 200'006,
                   MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
            break;
        }
    }
    Caller quiet(port);
    quiet.send(framed("hi"));
    EXPECT_TRUE(eventually([&] { return told.ended == 3; }));
    EXPECT_TRUE(quiet.echoes("idle is no fault"));
}

TEST_F(ConversationTest, AQueueThatNobodyReadsIsBounded) {
    told.queueLimit = 1 << 20;
    Caller deaf(port);
    const Ref<Talker> talker = arrived();
    int sent = 0;
    EXPECT_TRUE(eventually([&] {
        if (!talker->isDead()) talker->send(packetOf(std::string(100'000, 'q'))), ++sent;
        return talker->isDead();
    }));
    EXPECT_GE(sent, 10);
    EXPECT_FALSE(talker->hasToSend());
    EXPECT_TRUE(allGone(1));
}

TEST_F(ConversationTest, CloseFromAnotherThreadInTheMiddleOfATransfer) {
    for (int round = 0; round < 20; ++round) {
        Caller caller(port);
        const Ref<Talker> talker = arrived();
        std::atomic<bool> ended{false};
        std::thread sender([&] {
            while (!ended) {
                talker->send(packetOf(std::string(5'000, 's')));
                std::this_thread::yield();
            }
        });
        caller.read(100'000 + static_cast<std::size_t>(round) * 1'000);
        talker->close();
        while (!caller.isEnded()) {
        }
        ended = true;
        sender.join();
        EXPECT_TRUE(allGone(round + 1));
    }
}

TEST_F(ConversationTest, AThousandConnectionsComeAndGo) {
    constexpr int each = 100;
    for (int round = 1; round <= 10; ++round) {
        std::vector<std::unique_ptr<Caller>> callers;
        for (int i = 0; i < each; ++i) callers.push_back(std::make_unique<Caller>(port));
        for (auto& caller : callers) caller->send(framed("ehello"));
        for (auto& caller : callers) EXPECT_EQ(caller->read(11), framed("ehello"));
        for (std::size_t i = 0; i < each; i += 2) callers[i]->reset();
        callers.clear();
        EXPECT_TRUE(allGone(each * round));
    }
    door->takeLast();
    EXPECT_TRUE(eventually([&] { return told.destroyed == 10 * each; }));
}

TEST_F(ConversationTest, ADoorWithoutDescriptorsSaysSoOnceAndRecovers) {
    std::string said;
    const auto saysSo = [&] {
        said += log.take();
        return said.find("Too many open files") == 0;
    };
    // Once before, since a sanitizer's first look at a type takes descriptors of its own.
    EXPECT_FALSE(saysSo());
    theLog->printLine("%s", "");
    log.take();
    Caller before_all(port);
    EXPECT_TRUE(before_all.echoes("hello"));

    std::vector<std::unique_ptr<Caller>> waiting;
    for (int i = 0; i < 20; ++i) waiting.push_back(std::make_unique<Caller>());
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    std::vector<int> fillers;
    const rlimit low{static_cast<rlim_t>(waiting.back()->descriptor()) + 1, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &low);
    for (int filler; (filler = ::dup(0)) >= 0;) fillers.push_back(filler);
    for (auto& caller : waiting) EXPECT_TRUE(caller->connect(port));
    EXPECT_TRUE(eventually(saysSo));
    const std::clock_t busy = std::clock();
    for (auto& caller : waiting) caller->send(framed("ehello"));
    // Through two rests, the door gets no further and doesn't spin.
    const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    EXPECT_TRUE(eventually([&] { return std::chrono::steady_clock::now() > until; }));
    EXPECT_LT(static_cast<double>(std::clock() - busy) / CLOCKS_PER_SEC, 0.75);
    EXPECT_EQ(told.count(), 1U);
    ::setrlimit(RLIMIT_NOFILE, &before);
    for (const int filler : fillers) ::close(filler);
    for (auto& caller : waiting) EXPECT_EQ(caller->read(11), framed("ehello"));
    said += log.take();
    EXPECT_EQ(said.find("Too many", 1), std::string::npos) << said;
}

// A port at which connects neither succeed nor fail: a listener whose queue is full.
struct FullListener : Listener {
    FullListener() {
        ::listen(descriptor(), 0);
        filler.connect(port());
    }
    Caller filler;
};

TEST_F(ConversationTest, OutgoingConnectsSucceedOrFailCleanly) {
    Told outgoing;
    Ref<Talker> talker(new Talker(loopbackIp, port, outgoing));
    EXPECT_TRUE(connectRegistry.connect(&pool, Ref<Connection>(talker.get())));
    talker->send(packetOf("eover there"));
    EXPECT_TRUE(eventually([&] { return outgoing.count() >= 1; }));
    EXPECT_EQ(outgoing.connected, 1);
    talker->close();  // until now, the two echo each other
    EXPECT_TRUE(eventually([&] { return outgoing.ended == 1; }));
    EXPECT_TRUE(connectRegistry.connect(&pool, Ref<Connection>()));

    // Refused; a low ID; a broadcast address, which the system doesn't route.
    u32 refusing = 0;
    {
        Told nobody;
        const Ref<TalkerDoor> closed(new TalkerDoor(&pool, 0, nobody));
        EXPECT_TRUE(closed->listen(500));
        refusing = closed->localPort();
        closed->close();
        EXPECT_TRUE(eventually([&] { return closed->isDead(); }));
    }
    for (const auto& [ip, to] : {std::pair{loopbackIp, refusing}, {0xFFFFFFU, port}, {0xFFFFFFFFU, port}}) {
        Told failing;
        EXPECT_TRUE(connectRegistry.connect(&pool, Ref<Connection>(new Talker(ip, to, failing))));
        EXPECT_TRUE(eventually([&] { return failing.destroyed == 1; }));
        EXPECT_EQ(failing.failed, 1);
        EXPECT_EQ(failing.ended, 1);
        EXPECT_EQ(failing.connected, 0);
    }
}

TEST_F(ConversationTest, AConnectThatGetsNoAnswerFailsAfterItsTime) {
    FullListener full;
    Told outgoing;
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_TRUE(
        connectRegistry.connect(&pool, Ref<Connection>(new Talker(loopbackIp, full.port(), outgoing))));
    EXPECT_TRUE(eventually([&] { return outgoing.destroyed == 1; }));
    const auto took = std::chrono::steady_clock::now() - begun;
    EXPECT_GE(took, std::chrono::milliseconds(7900));
    EXPECT_EQ(outgoing.failed, 1);
}

TEST_F(ConversationTest, APendingConnectIsNotMadeTwiceAndEndsWithTheWorker) {
    FullListener full;
    Told first;
    Told second;
    Told queued;
    EXPECT_TRUE(connectRegistry.connect(&pool, Ref<Connection>(new Talker(loopbackIp, full.port(), first))));
    EXPECT_FALSE(
        connectRegistry.connect(&pool, Ref<Connection>(new Talker(loopbackIp, full.port(), second))));
    EXPECT_EQ(second.destroyed, 1);
    EXPECT_EQ(second.failed + second.ended, 0);
    EXPECT_TRUE(connectRegistry.connect(&pool, Ref<Connection>(new Talker(loopbackIp, port, queued))));
    const auto begun = std::chrono::steady_clock::now();
    worker.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(4));
    pool.stop();
    pool.deleteConnections();
    EXPECT_EQ(first.destroyed + queued.destroyed, 2);
    EXPECT_EQ(first.ended + queued.ended, 2);
    // Nothing is pending any more.
    Told again;
    EXPECT_TRUE(connectRegistry.connect(&pool, Ref<Connection>(new Talker(loopbackIp, full.port(), again))));
    pool.deleteConnections();
    EXPECT_EQ(again.destroyed, 1);
}

}  // namespace
