// The pools: who is in them, whose turn it is, what speed limits grant, what is estimated of the line.
#include <gtest/gtest.h>

#include "app/Preferences.h"
#include "tests/support/OpenDoor.h"
#include "transport/ABSocketPool.h"
#include "transport/STSocketPool.h"

namespace {

TEST(BudgetClockTest, GrantsWhatTheLimitAllowsForTheTimeSinceTheLastGrant) {
    i4_time now;
    BudgetClock clock;
    const auto after = [&](i32 ms, f32 limit) {
        now.add(ms);
        return clock.grant(limit, now);
    };
    clock.begin(now);
    EXPECT_EQ(after(200, 10), 2000);
    EXPECT_EQ(after(1, 0), unlimitedBudget);
    EXPECT_EQ(after(1, 0.5F), 0);
    EXPECT_EQ(after(9, 0.5F), 5);
    clock.charge(2);
    EXPECT_EQ(after(4, 100), 3);  // too soon: what is left
    clock.charge(9);
    EXPECT_EQ(after(6, 100), 1000);
    clock.charge(1000);
    EXPECT_EQ(after(60, 0.01F), 0);
    EXPECT_EQ(after(60, 0.01F), 1);
    EXPECT_EQ(after(200, 1e30F), unlimitedBudget);
    now.add(5000);
    clock.waited(5000);
    EXPECT_EQ(after(0, 10), 400);
}

TEST(SpeedHistoryTest, RisesAtOnceAndSinksSlowly) {
    STSocketPool::History history;
    history.entries.fill(8);
    EXPECT_EQ(history.update(0, 8), 8);
    EXPECT_EQ(history.index, 0U);
    EXPECT_EQ(history.update(4, 8), (7 * 8 + 7) / 8.0F);
    EXPECT_EQ(history.entries[0], 7);
    EXPECT_EQ(history.update(20, 8), 20);
    EXPECT_EQ(history.entries[1], 20);
    f32 maximum = 20;
    for (int i = 0; i < 100; ++i) maximum = history.update(4, maximum);
    EXPECT_NEAR(maximum, 4, 0.5);
    EXPECT_GE(maximum, 4);
}

// A connection without a socket that is ready when told so, and moves what it is told to.
class Simulated : public Connection {
  public:
    explicit Simulated(std::string name, std::string& order)
        : Connection(0, 0), name_(std::move(name)), order_(order) {}
    bool isReady() override { return ready; }
    void doTask(SocketPool*) override {
        order_ += name_;
        bytesSent.add(static_cast<u32>(std::min(toSend, sendBudget)));
        bytesReceived.add(static_cast<u32>(std::min(toReceive, recvBudget)));
    }
    bool ready = true;
    i32 toSend = 0;
    i32 toReceive = 0;
    int ended = 0;

  protected:
    void gone() override { ++ended; }

  private:
    const std::string name_;
    std::string& order_;
};

template <class Pool>
struct Opened : Pool {
    using Pool::elapsed;
    using Pool::processChanges;
    using Pool::runTurns;
    using Pool::turns;
};

class TurnsTest : public testing::Test {
  protected:
    ~TurnsTest() override {
        sendBudget = recvBudget = unlimitedBudget;
        preferences.maxUpSpeed = preferences.maxDownSpeed = 5.0F;
    }
    Ref<Simulated> make(const char* name) { return Ref<Simulated>(new Simulated(name, order)); }
    std::string turn(Opened<ABSocketPool>& pool) {
        order.clear();
        pool.turns();
        return order;
    }

    CapturedLog log;
    std::string order;
};

TEST_F(TurnsTest, TheHeadOfTheListMovesOnAndTheBudgetIsSharedInOrder) {
    Opened<STSocketPool> pool;
    EXPECT_TRUE(pool.runTurns());
    const Ref<Simulated> all[] = {make("a"), make("b"), make("c"), make("d")};
    for (const auto& one : all) pool.addConnection(one.get());
    pool.processChanges();
    all[3]->ready = false;
    for (int i = 0; i < 4; ++i) EXPECT_FALSE(pool.runTurns());
    EXPECT_EQ(order, "abcbcacababc");
    for (const auto& one : all) one->toSend = 600;
    sendBudget = 1000;
    pool.runTurns();  // the list stands at a again
    EXPECT_EQ(all[0]->bytesSent, 600U);
    EXPECT_EQ(all[1]->bytesSent, 400U);
    EXPECT_EQ(all[2]->bytesSent, 0U);
    EXPECT_EQ(sendBudget, 0);
}

TEST_F(TurnsTest, ConnectionsEnterAndLeaveOnce) {
    Opened<STSocketPool> pool;
    const Ref<Simulated> one = make("a");
    const Ref<Simulated> other = make("b");
    pool.addConnection(nullptr);
    pool.removeConnection(nullptr);
    pool.addConnection(one.get());
    pool.addConnection(one.get());
    EXPECT_EQ(pool.count, 1);
    pool.processChanges();
    pool.addConnection(one.get());
    EXPECT_EQ(pool.count, 2);
    pool.processChanges();
    EXPECT_EQ(pool.count, 1);
    EXPECT_EQ(log.take(), "ERROR: connection already on list\n");
    pool.addConnection(other.get());
    pool.removeConnection(other.get());
    pool.removeConnection(other.get());
    pool.processChanges();
    EXPECT_EQ(other->ended, 1);
    EXPECT_EQ(pool.count, 1);
    pool.removeConnection(other.get());
    pool.processChanges();
    EXPECT_EQ(other->ended, 1);
    EXPECT_EQ(pool.count, 1);
    pool.addConnection(other.get());
    pool.deleteConnections();
    EXPECT_EQ(one->ended, 1);
    EXPECT_EQ(pool.count, 0);
}

TEST_F(TurnsTest, TheLineIsMeasuredByGivingSomePriority) {
    EXPECT_FLOAT_EQ(ABSocketPool::adjust(2.0F, 2.05F, 10, 12), 12);
    EXPECT_NEAR(ABSocketPool::adjust(2.0F, 2.5F, 10, 12), 11.333, 0.001);
    EXPECT_FLOAT_EQ(ABSocketPool::adjust(2.0F, 2.5F, 13, 12), 13);
    EXPECT_FLOAT_EQ(ABSocketPool::adjust(2.0F, 2.05F, 16, 12), 18);
    EXPECT_FLOAT_EQ(ABSocketPool::adjust(0.5F, 0, 10, 8), 10);
    EXPECT_FLOAT_EQ(ABSocketPool::adjust(2.0F, 9, 0, 12), 12);

    Opened<ABSocketPool> pool;
    const Ref<Simulated> all[] = {make("a"), make("b"), make("c"), make("d")};
    for (const auto& one : all) pool.addConnection(one.get());
    pool.processChanges();
    pool.elapsed(300'000);
    all[0]->bytesSent = 99;
    pool.elapsed(1);  // the baseline begins
    EXPECT_EQ(all[0]->bytesSent, 0U);
    all[0]->bytesSent = 180'000;
    all[1]->bytesSent = 90'000;
    all[2]->bytesReceived = 90'000;
    pool.elapsed(45'001);  // a and c have priority from now on, b doesn't
    EXPECT_EQ(turn(pool), "ac");
    all[0]->ready = all[2]->ready = false;
    all[1]->toSend = all[3]->toReceive = 1000;
    sendBudget = 10'000;
    EXPECT_EQ(turn(pool), "bd");
    EXPECT_EQ(all[1]->bytesSent, 256U);
    EXPECT_EQ(all[3]->bytesReceived, 256U);
    EXPECT_EQ(sendBudget, unlimitedBudget);

    // With priority a sends no faster, so the line carries more than the total; c receives 90,000 / 45,001
    // without and 180,000 / 45,001 with priority, so the line is full.
    preferences.maxUpSpeed = 5.0F;
    preferences.maxDownSpeed = 100.0F;
    all[0]->bytesSent = 180'000;
    all[2]->bytesReceived = 180'000;
    all[1]->bytesSent = 90'000;
    pool.elapsed(45'001);
    EXPECT_NEAR(preferences.maxUpSpeed, 270'000 / 45'001.0 * 9 / 8, 0.01);
    EXPECT_NEAR(preferences.maxDownSpeed, 100 - (100 - 180'256 / 45'001.0) / 3, 0.01);

    // Without rivals the estimate rises at once.
    pool.elapsed(300'001);
    all[0]->bytesSent = 4'500'000;
    pool.elapsed(45'001);
    EXPECT_NEAR(preferences.maxUpSpeed, 100, 0.1);
    all[0]->bytesSent = 45'000'000;
    pool.elapsed(45'001);  // idle again: nothing is due
    EXPECT_NEAR(preferences.maxUpSpeed, 100, 0.1);
}

// An open door and one caller; without limits behind it.
template <class Pool>
struct Live : OpenDoor<Pool> {
    Live() { EXPECT_TRUE(caller.connect(this->port)); }
    ~Live() { preferences.userMaxUpF = preferences.userMaxDownF = 0.0F; }
    Caller caller;
};

// How many KB/s a counter of bytes goes up by, over a quarter of a million.
double rateOf(const Relaxed<u32>& bytes) {
    const u32 first = bytes;
    EXPECT_TRUE(eventually([&] { return bytes != first; }));
    const auto begun = std::chrono::steady_clock::now();
    const u32 before = bytes;
    EXPECT_TRUE(eventually([&] { return bytes - before > 250'000; }));
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begun;
    return (bytes - before) / 1000.0 / took.count();
}

TEST(LimitsTest, ALimitHoldsOverASecondAndLeavesTheOtherDirectionAlone) {
    Live<STSocketPool> live;
    const Ref<Talker> talker = live.arrived();
    preferences.userMaxUpF = 200.0F;
    for (int i = 0; i < 100; ++i) talker->send(packetOf(std::string(10'240, 'u')));
    std::thread reader([&] {
        while (!live.caller.read(10'000).empty()) continue;
    });
    EXPECT_NEAR(rateOf(talker->bytesSent), 200, 12) << "the last turn may have come just now";
    // 20 MB would take 100 seconds at that rate.
    const std::string piece = framed(std::string(60'000, 'd'));
    for (int i = 0; i < 333; ++i) live.caller.send(piece);
    EXPECT_TRUE(eventually([&] { return live.told.count() == 333; }));

    preferences.userMaxUpF = 0.0F;
    preferences.userMaxDownF = 200.0F;
    std::thread writer([&] {
        while (live.caller.send(piece)) continue;
    });
    EXPECT_NEAR(rateOf(talker->bytesReceived), 200, 12);
    talker->close();
    reader.join();
    writer.join();
}

TEST(SocketPoolTest, TheBasePoolHandsTurnsToItsWorkers) {
    Live<SocketPool> live;
    for (int i = 0; i < 5; ++i) EXPECT_TRUE(live.caller.echoes("hello"));
    live.caller.close();
    EXPECT_TRUE(eventually([&] { return live.told.ended == 1; }));
}

}  // namespace
