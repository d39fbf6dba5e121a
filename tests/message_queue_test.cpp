// The queue of messages: order, numbers without a handler, and the automatic connect.
#include "app/MessageQ.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>
#include <vector>

#include "tests/support/CapturedLog.h"
#include "tests/support/eventually.h"

namespace {

// What the handlers saw. They run on one thread at a time, and the tests read after stop().
struct Seen {
    std::vector<ServerAddress> order;
    std::atomic<int> handled{0};
    std::atomic<int> connects{0};
    std::atomic<bool> wantsServer{false};
};
Seen* seen = nullptr;
MessageQ* queue = nullptr;

MessageDuties duties() {
    MessageDuties result;
    result.handlers[MESSAGE_LOAD] = [](QArgument&) { queue->post(MESSAGE_SAVE, ServerAddress{99, 0}); };
    result.handlers[MESSAGE_SAVE] = [](QArgument& argument) {
        seen->order.push_back(std::get<ServerAddress>(argument));
        ++seen->handled;
    };
    result.handlers[MESSAGE_CONNECT] = [](QArgument&) { ++seen->connects; };
    result.wantsServer = [] { return seen->wantsServer.load(); };
    return result;
}

class MessageQueue : public testing::Test {
  protected:
    MessageQueue() {
        seen = &seen_;
        queue = &queue_;
    }

    Seen seen_;
    const MessageDuties duties_ = duties();
    MessageQ queue_{duties_};
};

TEST_F(MessageQueue, HandlesEachThreadsMessagesInTheOrderOfPosting) {
    queue_.start();
    constexpr u32 posters = 4;
    constexpr u16 each = 10;
    std::vector<std::thread> threads;
    for (u32 poster = 0; poster < posters; ++poster) {
        threads.emplace_back([this, poster] {
            for (u16 i = 0; i < each; ++i) queue_.post(MESSAGE_SAVE, ServerAddress{poster, i});
        });
    }
    for (std::thread& thread : threads) thread.join();
    ASSERT_TRUE(eventually([this] { return seen_.handled == posters * each; }));
    queue_.stop();
    std::vector<u16> next(posters, 0);
    for (const ServerAddress& address : seen_.order) EXPECT_EQ(address.port, next[address.ip]++);
}

TEST_F(MessageQueue, AMessagePostedByAHandlerComesBehindThoseThatWaited) {
    CapturedLog log;
    queue_.post(MESSAGE_LOAD);
    queue_.post(MESSAGE_SAVE, ServerAddress{1, 0});
    queue_.postFront(MESSAGE_SAVE, ServerAddress{0, 0});
    // Numbers without a handler are named and removed.
    for (const u32 number : {18U, 20U, 26U, 4'000'000'000U}) queue_.post(number);
    int handled = 0;
    while (queue_.process()) ++handled;
    EXPECT_EQ(handled, 8);
    for (int i = 0; i < 100; ++i) queue_.postOnce(MESSAGE_CONNECT);
    while (queue_.process()) continue;
    EXPECT_EQ(seen_.connects, 2) << "the one at the head may be in hand";
    EXPECT_EQ(seen_.order, (std::vector<ServerAddress>{{0, 0}, {1, 0}, {99, 0}}));
    const std::string unknown = "ERROR: Unknown message in Process\n";
    EXPECT_EQ(log.take(), unknown + unknown + unknown + unknown);
}

TEST_F(MessageQueue, ConnectsByItselfOnTheFirstIdleTurnAndNotAgainWithinAMinute) {
    queue_.start();
    queue_.post(MESSAGE_SAVE, ServerAddress{});
    ASSERT_TRUE(eventually([this] { return seen_.handled == 1; }));
    EXPECT_EQ(seen_.connects, 0);
    seen_.wantsServer = true;
    ASSERT_TRUE(eventually([this] { return seen_.connects == 1; }));
    // Two more idle turns, each ended by a message.
    for (int i = 2; i <= 3; ++i) {
        queue_.post(MESSAGE_SAVE, ServerAddress{});
        ASSERT_TRUE(eventually([this, i] { return seen_.handled == i; }));
    }
    queue_.stop();
    EXPECT_EQ(seen_.connects, 1);
}

}  // namespace
