// Packets on a scripted socket. Connections, listeners, workers and datagrams on loopback, with misbehaving
// peers. The pools: order of turns, speed limits, and the estimate of the line.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <ctime>

#include "core/Preferences.h"
#include "i4min/memory/error.h"
#include "protocol/OpcodeTable.h"
#include "tests/support/OpenDoor.h"
#include "tests/support/OwnEngine.h"
#include "tests/support/ScriptedSocket.h"
#include "tests/support/systemNetwork.h"
#include "transport/ABSocketPool.h"
#include "transport/ConnectRegistry.h"
#include "transport/Packet.h"
#include "transport/STSocketPool.h"
#include "transport/UDPAnnex.h"
#include "transport/UDPDoor.h"

namespace {

using namespace std::string_literals;

constexpr u32 limit = 8 << 20;

class PacketTest : public testing::Test {
  protected:
    Budgets budgets;
    Packet::Result receive() {
        moved = 0;
        return packet.receive(socket, budgets, moved, limit);
    }
    ScriptedSocket socket;
    Packet packet;
    u32 moved = 0;
};

TEST_F(PacketTest, IsSentFromItsBufferInPiecesThatBudgetAndSocketAllow) {
    const auto longer = packetOf("0123456789");
    const auto copy = longer->clone();
    socket.room = 3;
    std::vector<u32> pieces;
    budgets.sendBudget = 2;
    for (Packet::Result result = Packet::more; result == Packet::more && pieces.size() < 20;) {
        moved = 0;
        result = longer->send(socket, budgets, moved);
        pieces.push_back(moved);
        if (pieces.size() == 4) budgets.sendBudget = unlimitedBudget;
    }
    EXPECT_EQ(pieces, (std::vector<u32>{3, 4, 2, 2, 3, 1}));
    EXPECT_EQ(socket.written, framed("0123456789"));
    budgets.sendBudget = 0;
    EXPECT_EQ(copy->send(socket, budgets, moved), Packet::more);
    socket.room = -1;
    budgets.sendBudget = 10;
    EXPECT_EQ(copy->send(socket, budgets, moved), Packet::failed);
}

TEST_F(PacketTest, OfTheLargestSizeIsReceivedAsTheBudgetAllows) {
    socket.pieces = {"\xE3\0\0\x80\0"s};
    EXPECT_EQ(receive(), Packet::more);
    const std::string body = someBytes(limit);
    for (std::size_t at = 0; at < limit; at += 50'000) {
        socket.pieces.push_back(body.substr(at, 50'000));
        budgets.recvBudget = 0;
        EXPECT_EQ(receive(), Packet::more);
        EXPECT_EQ(moved, 0U);
        budgets.recvBudget = unlimitedBudget;
        EXPECT_EQ(receive(), at + 50'000 < limit ? Packet::more : Packet::complete);
        EXPECT_LE(packet.stream.capacity(), std::max(64U * 1024, 4 * packet.bodyDone));
    }
    EXPECT_EQ(std::memcmp(packet.stream.buffer(), body.data(), limit), 0);
}

class ConversationTest : public testing::Test, protected OwnEngine, protected OpenDoor<STSocketPool> {
  protected:
    ConversationTest() : OpenDoor(engine.transport) {}
};

TEST_F(ConversationTest, CarriesMessagesInOrderBothWays) {
    Caller caller(port);
    caller.send(framed("efirst") + framed("esecond") + framed("x"));
    EXPECT_EQ(caller.read(23), framed("efirst") + framed("esecond"));
    EXPECT_TRUE(eventually([&] { return told.count() == 3; }));
    const Ref<Talker> talker = door->takeLast();
    EXPECT_EQ(talker->getText(), "127.0.0.1");
    std::thread([&] { talker->send(packetOf("from another thread")); }).join();
    EXPECT_EQ(caller.read(24), framed("from another thread"));
    const Ref<TalkerDoor> second(new TalkerDoor(pool, port, told));
    EXPECT_FALSE(second->listen(500)) << "a taken port is told, and harms nobody";
    EXPECT_EQ(log.take(),
              "Can't Listen for connections. Please adjust your proxy settings in the options tab.\n");
    caller.send(framed("clast"));
    EXPECT_TRUE(caller.isEnded());
    EXPECT_TRUE(allGone(1));
    talker->send(packetOf("to the dead"));
    talker->close();
    EXPECT_FALSE(talker->hasToSend());
}

TEST_F(ConversationTest, WhatIsMalformedEndsItsConnectionAlone) {
    static constexpr Opcode rows[] = {{'t', "Table", Direction::in, 2, 3}};
    static constexpr OpcodeTable table(rows);
    told.table = &table;
    log.setVerbose(true);
    Caller bystander(port);
    bystander.send(framed("hi"));
    int ended = 0;
    for (const std::string& bytes : {"\xE2\x01\0\0\0\x01"s, "\xE3\xFF\xFF\xFF\xFF"s + "body",
                                     "\xE3\x01\0\x01\0"s,  // above the limit for a first message
                                     framed("frefused"), framed("sshort"), framed("t1"), framed("t1234"),
                                     framed("good") + "\xE3\x01\0\x80\0"s}) {  // above the later limit
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

TEST_F(ConversationTest, EndsAndResetsInEveryStateAreNoticedAndTheQueueIsBounded) {
    const std::string whole = framed(std::string(200'000, 'w'));
    int ended = 0;
    for (const bool resets : {false, true}) {
        for (const std::size_t length : {std::size_t{0}, std::size_t{3}, std::size_t{5}, whole.size() - 1}) {
            Caller caller(port);
            caller.send(framed("hi") + whole.substr(0, length));
            EXPECT_TRUE(eventually([&] { return pool.count == 2; }));
            resets ? caller.reset() : caller.close();
            EXPECT_TRUE(allGone(++ended)) << length;
        }
        // While we send: a reset, or more than the queue may hold.
        door->takeLast();
        Caller caller(port);
        const Ref<Talker> talker = arrived();
        talker->send(packetOf(std::string(15 << 20, 'o')));
        caller.read(100'000);
        EXPECT_FALSE(talker->isDead());
        told.queueLimit = 1 << 20;
        resets ? caller.reset() : talker->send(packetOf("more"));
        EXPECT_TRUE(allGone(++ended));
        EXPECT_TRUE(eventually([&] { return !talker->hasToSend(); }));
        told.queueLimit = 16 << 20;
    }
}

TEST_F(ConversationTest, WhatStandsStillEnds) {
    told.stallLimit = 200;
    Caller half(port);
    half.send(framed("hi") + "\xE3\x10\0\0\0half"s);
    Caller silent(port);
    Caller deaf(port);
    const std::string piece = framed("e" + std::string(200'000, 'd'));
    for (int i = 0; i < 50; ++i)
        ::send(deaf.descriptor(), piece.data(), piece.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    Caller quiet(port);
    quiet.send(framed("hi"));
    EXPECT_TRUE(eventually([&] { return told.ended == 3; }));
    EXPECT_TRUE(quiet.echoes("idle is no fault"));
}

TEST_F(ConversationTest, CloseFromAnotherThreadInTheMiddleOfATransfer) {
    for (int round = 1; round <= 5; ++round) {
        Caller caller(port);
        const Ref<Talker> talker = arrived();
        std::atomic<bool> ended{false};
        std::thread sender([&] {
            for (; !ended; std::this_thread::yield()) talker->send(packetOf(std::string(5'000, 's')));
        });
        caller.read(100'000 + static_cast<std::size_t>(round) * 1'000);
        talker->close();
        while (!caller.isEnded()) continue;
        ended = true;
        sender.join();
        EXPECT_TRUE(allGone(round));
    }
}

TEST_F(ConversationTest, ADoorWithoutDescriptorsSaysSoOnceAndRecovers) {
    // Once before, since a sanitizer's first check of a type opens descriptors.
    const auto said = [&] { return log.text().find("Too many open files"); };
    EXPECT_NE(said(), 0U);
    log.printLine("%s", "");
    log.take();
    Caller first(port);
    EXPECT_TRUE(first.echoes("hello"));

    Caller waiting[20];
    rlimit before{};
    ::getrlimit(RLIMIT_NOFILE, &before);
    std::vector<int> fillers;
    const rlimit low{static_cast<rlim_t>(waiting[19].descriptor()) + 1, before.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &low);
    for (int filler; (filler = ::dup(0)) >= 0;) fillers.push_back(filler);
    for (Caller& caller : waiting) EXPECT_TRUE(caller.connect(port));
    EXPECT_TRUE(eventually([&] { return said() == 0; }));
    const std::clock_t busy = std::clock();
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_LT(static_cast<double>(std::clock() - busy) / CLOCKS_PER_SEC, 0.6) << "the door rests, twice";
    EXPECT_EQ(told.count(), 1U);
    ::setrlimit(RLIMIT_NOFILE, &before);
    for (const int filler : fillers) ::close(filler);
    for (Caller& caller : waiting) EXPECT_TRUE(caller.echoes("hello"));
    EXPECT_EQ(log.take().find("Too many", 1), std::string::npos);
}

// A port where connects neither succeed nor fail, because its listener's queue is full.
struct FullListener : Listener {
    FullListener() {
        ::listen(descriptor(), 0);
        filler.connect(port());
    }
    Caller filler;
};

class ConnectTest : public ConversationTest {
  protected:
    bool connect(u32 ip, u32 to, Told& outgoing) {
        return engine.connectRegistry.connect(Ref<Connection>(new Talker(pool, ip, to, outgoing)));
    }
    FullListener full;
};

TEST_F(ConnectTest, ConnectsSucceedOrFailCleanly) {
    Told outgoing;
    Ref<Talker> talker(new Talker(pool, loopbackIp, port, outgoing));
    EXPECT_TRUE(engine.connectRegistry.connect(Ref<Connection>(talker.get())));
    talker->send(packetOf("eover there"));
    EXPECT_TRUE(eventually([&] { return outgoing.count() >= 1; }));
    EXPECT_EQ(outgoing.connected, 1);
    talker->close();  // until now, the two echo each other
    EXPECT_TRUE(eventually([&] { return outgoing.ended == 1; }));
    EXPECT_TRUE(engine.connectRegistry.connect(Ref<Connection>()));

    // Nobody there; a low ID; a broadcast address, which the system doesn't route; and no answer.
    engine.connectRegistry.limit = 100;
    const auto begun = std::chrono::steady_clock::now();
    for (const auto& [ip, to] : {std::pair{loopbackIp, 1U},
                                 {0xFFFFFFU, port},
                                 {0xFFFFFFFFU, port},
                                 {loopbackIp, u32{full.port()}}}) {
        Told failing;
        EXPECT_TRUE(connect(ip, to, failing));
        EXPECT_TRUE(eventually([&] { return failing.destroyed == 1; }));
        EXPECT_EQ(failing.failed, 1);
        EXPECT_EQ(failing.ended, 1);
        EXPECT_EQ(failing.connected, 0);
    }
    EXPECT_GE(std::chrono::steady_clock::now() - begun, std::chrono::milliseconds(100));
    EXPECT_EQ(ConnectRegistry::usualLimit, 8000);
}

TEST_F(ConnectTest, APendingConnectIsNotMadeTwiceAndEndsWithTheWorker) {
    Told first, second, queued, again;
    EXPECT_TRUE(connect(loopbackIp, full.port(), first));
    EXPECT_FALSE(connect(loopbackIp, full.port(), second));
    EXPECT_EQ(second.destroyed, 1);
    EXPECT_EQ(second.failed + second.ended, 0);
    EXPECT_TRUE(connect(loopbackIp, port, queued));
    const auto begun = std::chrono::steady_clock::now();
    worker.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(4));
    pool.stop();
    pool.deleteConnections();
    EXPECT_EQ(first.destroyed + queued.destroyed, 2);
    EXPECT_EQ(first.ended + queued.ended, 2);
    EXPECT_TRUE(connect(loopbackIp, full.port(), again)) << "nothing is pending any more";
    pool.deleteConnections();  // while what they tell to is still there
}

// Records each datagram; one that ends with `bad` is read past its end.
std::string hear(i4_ram_file_class& datagram, Told& told, char bad) {
    std::string text(*datagram.bytesLeft(), '\0');
    datagram.readAll(i4_room(text));
    told.heard(text);
    if (text.back() == bad) datagram.read_8();
    return text;
}

// Records each datagram.
struct Annex : UDPAnnex {
    Annex(SocketPool& pool, Told& annexTold) : UDPAnnex(pool), told(annexTold) {}
    void handleDatagram() override { hear(buffer_, told, 'p'); }
    Told& told;
};

// Echoes each datagram.
struct Door : UDPDoor {
    Door(SocketPool& pool, Told& doorTold) : UDPDoor(pool, 0), told(doorTold) {}
    void handleDatagram() override {
        const std::string text = hear(inBuffer_, told, '!');
        outBuffer_.write(i4_bytes(text));
        reply(outBuffer_.tell());
    }
    Told& told;
};

TEST_F(ConversationTest, DatagramsHaveTheirOwnLengthAndWhatCantBeReadCostsThatOneOnly) {
    log.setVerbose(true);
    Told annexTold;
    const Ref<Door> udpDoor(new Door(pool, told));
    const Ref<Annex> annex(new Annex(pool, annexTold));
    ASSERT_TRUE(udpDoor->open(500) && annex->open());
    // Sends a body of `length` bytes; unwritten ones are sent as zeros.
    const auto send = [&](const std::string& body, u32 length) {
        auto packet = std::make_unique<UDPPacket>(systemNetwork(), length, loopbackIp, udpDoor->localPort());
        packet->stream.write(i4_bytes(body));
        annex->send(std::move(packet));
    };
    send(std::string(2000, 'b'), 2000);
    send("c", 3);
    send("cut", 1);
    EXPECT_TRUE(eventually([&] { return annexTold.count() == 3; }));
    EXPECT_EQ(told.all(),
              (std::vector<std::string>{"\xE3" + std::string(2000, 'b'), "\xE3\x63\0\0"s, "\xE3\x63"s}));
    EXPECT_EQ(annexTold.all(), told.all());
    EXPECT_EQ(annex->bytesSent, 2001U + 4 + 2);

    const int descriptor = ::socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in address = loopbackAt(udpDoor->localPort());
    for (const std::string& bytes : {std::string(5000, 'l'), ""s, "bad!"s}) {
        ::sendto(descriptor, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                 sizeof address);
    }
    ::close(descriptor);
    send("p", 1);
    EXPECT_TRUE(eventually([&] { return annexTold.count() == 4; }));
    EXPECT_EQ(told.all()[3], std::string(3072, 'l')) << "a long one is cut";
    EXPECT_EQ(told.all()[4], "bad!") << "an empty one is none";
    EXPECT_EQ(log.take(), "*** Exception in UDPDoor\n*** Exception in UDPAnnex\n");
    pool.stop();
    pool.deleteConnections();
}

TEST(BudgetClockTest, GrantsWhatTheLimitAllowsForTheTimeSinceTheLastGrant) {
    Moment now;
    BudgetClock clock;
    const auto after = [&](i32 ms, f32 speed) {
        now = later(now, ms);
        return clock.grant(speed, now);
    };
    clock.begin(now);
    EXPECT_EQ(after(200, 10), 2000);
    EXPECT_EQ(after(1, 0), unlimitedBudget);
    EXPECT_EQ(after(1, 0.5F), 0);
    EXPECT_EQ(after(9, 0.5F), 5);
    clock.charge(2);
    EXPECT_EQ(after(4, 100), 3);  // too soon: the rest
    clock.charge(9);
    EXPECT_EQ(after(6, 100), 1000);
    clock.charge(1000);
    EXPECT_EQ(after(60, 0.01F), 0);
    EXPECT_EQ(after(60, 0.01F), 1);
    EXPECT_EQ(after(200, 1e30F), unlimitedBudget);
    now = later(now, 5000);
    clock.waited(5000);
    EXPECT_EQ(after(0, 10), 400);
}

// A connection without a socket that is ready, and moves bytes, as the test says.
class Simulated : public Connection {
  public:
    Simulated(SocketPool& pool, char name, std::string& order)
        : Connection(pool, 0, 0), name_(name), order_(order) {}
    bool isReady() override { return ready; }
    void doTask(SocketPool*) override {
        order_ += name_;
        bytesSent.add(static_cast<u32>(std::min(toSend, budgets().sendBudget)));
        bytesReceived.add(static_cast<u32>(std::min(toReceive, budgets().recvBudget)));
    }
    bool ready = true;
    i32 toSend = 0;
    i32 toReceive = 0;
    int ended = 0;

  protected:
    void gone() override { ++ended; }

  private:
    const char name_;
    std::string& order_;
};

// A pool whose turns the tests run.
struct OpenedPool : STSocketPool {
    using STSocketPool::budgets_;
    using STSocketPool::processChanges;
    using STSocketPool::runTurns;
    using STSocketPool::STSocketPool;
};

struct OpenedLine : ABSocketPool {
    using ABSocketPool::ABSocketPool;
    using ABSocketPool::budgets_;
    using ABSocketPool::elapsed;
    using ABSocketPool::processChanges;
    using ABSocketPool::turns;
};

template <class Pool>
struct Turns : testing::Test, OwnEngine {
    Ref<Simulated> make(char name) { return Ref<Simulated>(new Simulated(pool, name, order)); }

    Pool pool{engine.transport};
    std::string order;
    const Ref<Simulated> all[4] = {make('a'), make('b'), make('c'), make('d')};
};

using TurnsTest = Turns<OpenedPool>;
using LineTurnsTest = Turns<OpenedLine>;

TEST_F(TurnsTest, TheHeadOfTheListMovesOnAndTheBudgetIsSharedInOrder) {
    EXPECT_TRUE(pool.runTurns());
    for (const auto& one : all) pool.addConnection(one.get());
    pool.processChanges();
    all[3]->ready = false;
    for (int i = 0; i < 4; ++i) EXPECT_FALSE(pool.runTurns());
    EXPECT_EQ(order, "abcbcacababc");
    for (const auto& one : all) one->toSend = 600;
    pool.budgets_.sendBudget = 1000;
    pool.runTurns();  // the list begins with a again
    EXPECT_EQ(all[0]->bytesSent, 600U);
    EXPECT_EQ(all[1]->bytesSent, 400U);
    EXPECT_EQ(all[2]->bytesSent, 0U);
    EXPECT_EQ(pool.budgets_.sendBudget, 0);
}

TEST_F(TurnsTest, ConnectionsEnterAndLeaveOnce) {
    pool.addConnection(all[0].get());
    pool.addConnection(all[0].get());
    EXPECT_EQ(pool.count, 1);
    pool.processChanges();
    pool.addConnection(all[0].get());
    EXPECT_EQ(pool.count, 2);
    pool.processChanges();
    EXPECT_EQ(log.take(), "ERROR: connection already on list\n");
    pool.addConnection(all[1].get());
    for (int i = 0; i < 2; ++i) {
        pool.removeConnection(all[1].get());
        pool.removeConnection(all[1].get());
        pool.processChanges();
        EXPECT_EQ(all[1]->ended, 1);
        EXPECT_EQ(pool.count, 1);
    }
    pool.deleteConnections();
    EXPECT_EQ(all[0]->ended, 1);
    EXPECT_EQ(pool.count, 0);
}

TEST(LineTest, IsEstimated) {
    STSocketPool::History history;  // rises at once and falls slowly
    history.entries.fill(8);
    EXPECT_EQ(history.update(0, 8), 8);
    EXPECT_EQ(history.index, 0U);
    EXPECT_EQ(history.update(4, 8), (7 * 8 + 7) / 8.0F);
    EXPECT_EQ(history.entries[0], 7);
    EXPECT_EQ(history.update(20, 8), 20);
    EXPECT_EQ(history.entries[1], 20);

    EXPECT_FLOAT_EQ(ABSocketPool::adjust(2.0F, 2.05F, 10, 12), 12);
    EXPECT_NEAR(ABSocketPool::adjust(2.0F, 2.5F, 10, 12), 11.333, 0.001);
    EXPECT_FLOAT_EQ(ABSocketPool::adjust(2.0F, 2.05F, 16, 12), 18);
    EXPECT_FLOAT_EQ(ABSocketPool::adjust(0.5F, 0, 10, 8), 10);
    EXPECT_FLOAT_EQ(ABSocketPool::adjust(2.0F, 9, 0, 12), 12);
}

TEST_F(LineTurnsTest, TheLineIsMeasuredByGivingSomePriority) {
    const auto turn = [&] {
        order.clear();
        pool.turns();
        return order;
    };
    for (const auto& one : all) pool.addConnection(one.get());
    pool.processChanges();
    pool.elapsed(300'000);
    all[0]->bytesSent = 99;
    pool.elapsed(1);  // the baseline begins
    EXPECT_EQ(all[0]->bytesSent, 0U);
    all[0]->bytesSent = 180'000;
    all[1]->bytesSent = 90'000;
    all[2]->bytesReceived = 90'000;
    pool.elapsed(45'001);  // a and c have priority from now on, b hasn't
    EXPECT_EQ(turn(), "ac");
    all[0]->ready = all[2]->ready = false;
    all[1]->toSend = all[3]->toReceive = 1000;
    pool.budgets_.sendBudget = 10'000;
    EXPECT_EQ(turn(), "bd");
    EXPECT_EQ(all[1]->bytesSent, 256U);
    EXPECT_EQ(all[3]->bytesReceived, 256U);
    EXPECT_EQ(pool.budgets_.sendBudget, unlimitedBudget);

    // With priority, a sends no faster, so the line carries more than the total. c receives 90,000 / 45,001
    // without and 180,000 / 45,001 with priority, so the line is full.
    preferences.maxUpSpeed = 5.0F;
    preferences.maxDownSpeed = 100.0F;
    all[0]->bytesSent = 180'000;
    all[2]->bytesReceived = 180'000;
    all[1]->bytesSent = 90'000;
    pool.elapsed(45'001);
    EXPECT_NEAR(preferences.maxUpSpeed, 270'000 / 45'001.0 * 9 / 8, 0.01);
    EXPECT_NEAR(preferences.maxDownSpeed, 100 - (100 - 180'256 / 45'001.0) / 3, 0.01);
}

TEST_F(ConversationTest, ASpeedLimitHoldsAndLeavesTheOtherDirectionAlone) {
    const std::string body(500'000, 'x');
    const auto seconds = [&](bool up) {
        Caller caller(port);
        const Ref<Talker> talker = arrived();
        const std::size_t heard = told.count() + 2;
        const auto begun = std::chrono::steady_clock::now();
        if (up) {
            talker->send(packetOf(body));
            EXPECT_EQ(caller.read(body.size() + 5).size(), body.size() + 5);
        } else {
            caller.send(framed("hi") + framed(body));
            EXPECT_TRUE(eventually([&] { return told.count() == heard; }));
        }
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begun).count();
    };
    for (const bool up : {true, false}) {
        (up ? preferences.userMaxUpF : preferences.userMaxDownF) = 500.0F;
        const double limited = seconds(up);
        EXPECT_NEAR(limited, 1.05, 0.2);
        EXPECT_LT(seconds(!up), limited / 2);
        preferences.userMaxUpF = 0.0F;
    }
}

TEST(SocketPoolTest, TheBasePoolHandsTurnsToItsWorkers) {
    OwnEngine own;
    OpenDoor<SocketPool> open(own.engine.transport);
    Caller caller(open.port);
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(caller.echoes("hello"));
    caller.close();
    EXPECT_TRUE(open.allGone(1));
}

}  // namespace
