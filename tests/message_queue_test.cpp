#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "app/MessageQ.h"
#include "i4min/threads/linux/semaphore.h"

namespace {

// What the handlers saw. Handlers run on one thread at a time and the tests read after stop().
struct Seen {
    std::vector<ServerAddress> order;
    std::atomic<int> handled{0};
    std::atomic<int> connects{0};
    std::atomic<bool> wantsServer{false};
    MessageQ* queue = nullptr;
};
Seen* seen = nullptr;

void note(QArgument& argument) {
    seen->order.push_back(std::get<ServerAddress>(argument));
    ++seen->handled;
}

void countConnect(QArgument&) { ++seen->connects; }

void postFromHandler(QArgument&) { seen->queue->post(MESSAGE_SAVE, ServerAddress{99, 0}); }

MessageDuties duties() {
    MessageDuties result;
    result.handlers[MESSAGE_LOAD] = postFromHandler;
    result.handlers[MESSAGE_SAVE] = note;
    result.handlers[MESSAGE_CONNECT] = countConnect;
    result.wantsServer = [] { return seen->wantsServer.load(); };
    return result;
}

class MessageQueue : public testing::Test {
  protected:
    MessageQueue() {
        seen = &seen_;
        seen_.queue = &queue_;
    }
    void waitUntil(const std::function<bool()>& condition) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!condition()) {
            ASSERT_LT(std::chrono::steady_clock::now(), deadline);
            std::this_thread::yield();
        }
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
    waitUntil([this] { return seen_.handled == posters * each; });
    queue_.stop();
    std::vector<u16> next(posters, 0);
    for (const ServerAddress& address : seen_.order) EXPECT_EQ(address.port, next[address.ip]++);
}

TEST_F(MessageQueue, AMessagePostedByAHandlerComesBehindThoseThatWaited) {
    queue_.post(MESSAGE_LOAD);
    queue_.post(MESSAGE_SAVE, ServerAddress{1, 0});
    queue_.postFront(MESSAGE_SAVE, ServerAddress{0, 0});
    while (queue_.process()) continue;
    const std::vector<ServerAddress> expected{{0, 0}, {1, 0}, {99, 0}};
    EXPECT_EQ(seen_.order, expected);
}

TEST_F(MessageQueue, NumbersWithoutAHandlerAreNamedAndRemoved) {
    for (const u32 number : {18U, 20U, 26U, 4'000'000'000U}) queue_.post(number);
    testing::internal::CaptureStdout();
    int handled = 0;
    while (queue_.process()) ++handled;
    EXPECT_EQ(handled, 4);
    std::string expected;
    for (int i = 0; i < 4; ++i) expected += "ERROR: Unknown message in Process\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), expected);
}

TEST_F(MessageQueue, ConnectsByItselfOnTheFirstIdleTurnAndNotAgainWithinAMinute) {
    queue_.start();
    queue_.post(MESSAGE_SAVE, ServerAddress{});
    waitUntil([this] { return seen_.handled == 1; });
    EXPECT_EQ(seen_.connects, 0);
    seen_.wantsServer = true;
    waitUntil([this] { return seen_.connects == 1; });
    // Two more idle turns, each ended by a message.
    for (int i = 2; i <= 3; ++i) {
        queue_.post(MESSAGE_SAVE, ServerAddress{});
        waitUntil([this, i] { return seen_.handled == i; });
    }
    queue_.stop();
    EXPECT_EQ(seen_.connects, 1);
}

}  // namespace
