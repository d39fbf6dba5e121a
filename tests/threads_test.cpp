// Threads and their states, semaphores, reference counts, start-up objects, time, the debug checks of threads
// and locks, the message queue, and output to a terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/MessageQ.h"
#include "host/PosixHost.h"
#include "i4min/file/output.h"
#include "i4min/memory/error.h"
#include "i4min/memory/mutex.h"
#include "i4min/threads/linux/RefCounter.h"
#include "i4min/threads/linux/Thread.h"
#include "i4min/threads/linux/i4_time.h"
#include "i4min/threads/linux/linux_threads.h"
#include "i4min/threads/linux/semaphore.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/eventually.h"

namespace {

// A thread that records its turns, and ends itself in the turn that the test chooses.
class Worker : public Thread {
  public:
    Worker() : Thread(scheduler) {}
    ~Worker() override { stop(); }
    Rest run() override {
        checkOwnThread();
        if (endAt == ++turns) endLoop();
        told.signal();
        return Rest::atMost(nap);
    }
    void finished() override {
        stateInFinished = state();
        ended.signal();
    }
    inline static PosixScheduler scheduler;
    i4_semaphore told, ended;
    std::atomic<int> turns{0};
    int endAt = -1;
    i64 nap = 3'600'000;
    State stateInFinished = running;
};

void inFourThreads(const std::function<void(int)>& work) {
    std::vector<std::jthread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(work, t);
}

TEST(Threads, StopWakesASleeperAndItStartsAgain) {
    Worker worker;
    worker.stop();
    EXPECT_FALSE(worker.isStopping()) << "there was nothing to stop";
    for (int round = 1; round <= 3; ++round) {
        worker.start();
        ASSERT_TRUE(worker.told.wait(0));
        EXPECT_EQ(worker.state(), Thread::running);
        worker.start();
        worker.stop();
        EXPECT_EQ(worker.state(), Thread::notRunning);
        EXPECT_TRUE(worker.isStopping());
        EXPECT_EQ(worker.turns, round) << "a nap of an hour was cut short, and no turn came after it";
    }
    EXPECT_FALSE(worker.ended.wait(1)) << "who was stopped hasn't finished";
    worker.start();
    for (int n = 0; n < 50; ++n) {
        ASSERT_TRUE(worker.told.wait(0)) << "a wake ends one nap";
        worker.wake();
    }
    worker.stop();
    worker.nap = 0;
    inFourThreads([&](int t) {
        for (int n = 0; n < 50; ++n) (n + t) % 2 ? worker.start() : worker.stop();
    });
    worker.stop();
    EXPECT_EQ(worker.state(), Thread::notRunning);

    // A thread that ends itself has finished.
    worker.endAt = worker.turns + 3;
    worker.start();
    ASSERT_TRUE(worker.ended.wait(0));
    EXPECT_EQ(worker.stateInFinished, Thread::notRunning);
    EXPECT_EQ(worker.turns, worker.endAt);
    worker.stop();
    EXPECT_FALSE(worker.isStopping());
}

// An error that leaves a thread ends the process with status 0 and a message on the terminal.
TEST(ThreadsDeathTest, AnErrorThatLeavesAThreadEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto die = [] {
        ::dup2(STDERR_FILENO, STDIN_FILENO);  // the terminal's output goes to descriptor 0
        i4_add_thread([] { i4_error()("the text"); }, 0);
        i4_wait_for_threads();
        ::_exit(5);
    };
    EXPECT_EXIT(die(), testing::ExitedWithCode(0), "^Thread error : the text\n$");
}

TEST(Semaphore, KeepsSignalsLosesNoneAndTimesOut) {
    i4_semaphore semaphore;
    const i4_time before;
    EXPECT_FALSE(semaphore.wait(10));
    EXPECT_GE(i4_time().diff(before), 10);
    std::atomic<int> taken{0};
    inFourThreads([&](int) {
        for (int n = 0; n < 100; ++n) semaphore.signal();
        while (taken < 400) taken += semaphore.wait(1);
    });
    EXPECT_EQ(taken, 400);
    EXPECT_FALSE(semaphore.wait(1));
}

TEST(Counting, RefsHoldMoveAndLetGo) {
    static std::atomic<int> deaths;
    struct Counted : RefCounter {
        ~Counted() override { ++deaths; }
    };
    (new Counted)->release();
    EXPECT_EQ(deaths, 1) << "a release that nothing was added for deletes too";
    Ref<Counted> first(new Counted);
    Ref<Counted> moved(std::move(first));
    EXPECT_FALSE(first);
    moved = Ref<Counted>(moved);
    Ref<Counted> adopted = Ref<Counted>::adopt(moved.detach());
    EXPECT_FALSE(moved);
    inFourThreads([&](int) {
        for (int n = 0; n < 500; ++n) const Ref<Counted> copy(adopted);
    });
    EXPECT_EQ(deaths, 1);
    adopted = Ref<Counted>(new Counted);
    EXPECT_EQ(deaths, 2);
    adopted.reset();
    adopted.reset();
    EXPECT_EQ(deaths, 3);
}

// Records the phase of each of its calls.
struct Starter : i4_thread_init_class {
    explicit Starter(u32 phase) : phase_(phase) {}
    u32 init_type() override { return phase_; }
    void init() override { tell(i4_is_initialized() ? "+" : "-"); }
    void uninit() override { tell("~"); }
    void thread_init() override { tell("t"); }
    void thread_uninit() override { tell("~t"); }
    void tell(const char* what) { told += what + std::to_string(phase_) + " "; }
    const u32 phase_;
    inline static std::string told;
};

TEST(StartUp, GoesThroughThePhasesAndTellsOfErrors) {
    Starter nine(9);
    auto gone = std::make_unique<Starter>(4);
    Starter zero(0);
    gone.reset();
    i4_init();
    i4_uninit();
    EXPECT_EQ(Starter::told, "-0 +9 t0 t9 ~t0 ~t9 ~9 ~0 ");
    EXPECT_FALSE(i4_is_initialized());

    char name[] = "tarnwick";
    char* argv[] = {name, nullptr};
    testing::internal::CaptureStdout();
    EXPECT_EQ(i4_main(1, argv, [](int, char**) { i4_error("a/b.cpp", 12)(i4_argv.first()->c_str()); }), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unrecoverable error at a/b:12 : tarnwick");
}

TEST(Time, AddsAndComparesAcrossSeconds) {
    for (const auto& [start, add] : {std::pair{900, 100}, {900, 2350}, {3000, -1}, {3100, -1100}}) {
        i4_time from;
        from.set(start);
        i4_time point = from;
        point.add(add);
        EXPECT_EQ(point.seconds, (start + add) / 1000) << start << "+" << add;
        EXPECT_EQ(point.microseconds, (start + add) % 1000 * 1000) << start << "+" << add;
        EXPECT_EQ(point.diff(from), add);
        EXPECT_EQ(point < from, add < 0);
    }
}

// A pipe of one page, and a writer to it. The read end is closed first, so that a blocked write ends.
struct Unread {
    explicit Unread(std::size_t limit) : output(std::make_unique<i4_output>(limit)) {
        std::signal(SIGPIPE, SIG_IGN);
        EXPECT_EQ(::pipe(ends), 0);
        EXPECT_EQ(::fcntl(ends[1], F_SETPIPE_SZ, 4096), 4096);
        output->start();
        output->keepMine();
    }
    ~Unread() {
        ::close(ends[0]);
        output.reset();
        ::close(ends[1]);
    }
    std::unique_ptr<i4_output> output;
    int ends[2];
};

TEST(Output, ThatNobodyReadsHoldsUpNobodyAndLosesOnlyOldLinesOfOtherThreads) {
    Unread pipe(10'000);
    i4_output& output = *pipe.output;
    constexpr int lines = 3000;
    const auto numbered = [](char who, int n) { return who + std::to_string(10'000 + n) + "\n"; };
    for (int n = 0; n < lines; ++n) {
        output.write(pipe.ends[1], numbered('a', n));
        std::thread([&] { output.write(pipe.ends[1], numbered('e', n)); }).join();
    }
    EXPECT_FALSE(output.hasRoom(1));

    std::string all;
    std::thread reader([&] {
        char bytes[1000];
        while (!all.ends_with("the end\n"))
            all.append(bytes, static_cast<std::size_t>(::read(pipe.ends[0], bytes, sizeof bytes)));
    });
    output.write(pipe.ends[1], "the end\n");
    output.finish();
    reader.join();
    EXPECT_TRUE(output.hasRoom(1));
    std::istringstream text(all);
    int answers = 0;
    int next = 0;
    bool noticed = false;
    for (std::string line; std::getline(text, line) && line != "the end";) {
        if (line[0] == 'a') {
            EXPECT_EQ(line + "\n", numbered('a', answers++));
        } else if (line[0] == 'e') {
            EXPECT_EQ(line + "\n", numbered('e', next++));
            EXPECT_TRUE(!noticed || answers == next) << "each behind the answer that it came behind";
        } else {
            EXPECT_FALSE(std::exchange(noticed, true)) << "one place tells of all that is missing";
            next += std::stoi(line);
            EXPECT_NE(line.find(" lines are missing here: nobody read them in time."), std::string::npos);
        }
    }
    EXPECT_EQ(answers, lines);
    EXPECT_EQ(next, lines);
    EXPECT_TRUE(noticed);
}

TEST(Output, IsGivenUpAtTheEndWhereNobodyReads) {
    Unread pipe(10);
    pipe.output->write(pipe.ends[1], std::string(5000, 'x'));
    pipe.output->write(1'000'000, "no such descriptor");
    pipe.output->finish();
    pipe.output->write(pipe.ends[1], "unheard");
}

TEST(DebugBuildDeathTest, AbortsOutOfTheOrderOfLocksAndOnAnotherThread) {
    if (!debugBuild) GTEST_SKIP();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    i4_mutex low(LockRank::downloads);
    i4_mutex high(LockRank::download);
    i4_mutex equal(LockRank::download);
    // Released out of order. Another thread may use another order, and so may a try-lock.
    low.lock();
    high.lock();
    low.unlock();
    std::thread([&] { i4_lock other(low); }).join();
    EXPECT_DEATH(equal.lock(), "lock order: rank 40 taken while rank 40 is held");
    i4_rank_push_tried(LockRank::downloads);
    i4_rank_pop(LockRank::downloads);
    EXPECT_DEATH(low.lock(), "lock order: rank 30 taken while rank 40 is held");
    high.unlock();
    i4_lock again(low);

    const auto interfere = [] {
        Worker worker;
        worker.start();
        worker.told.wait(0);
        worker.checkOwnThread("the test");
    };
    EXPECT_DEATH(interfere(), "thread: the test was called on another thread than its own");
}

// Records what the handlers get. They run on one thread at a time; the tests read after stop().
class MessageQueue : public testing::Test, protected MessageDuties {
  protected:
    bool handle(u32 number, QArgument& argument) override {
        switch (number) {
            case MESSAGE_LOAD:
                queue_.post(MESSAGE_SAVE, ServerAddress{99, 0});
                return true;
            case MESSAGE_SAVE:
                order_.push_back(std::get<ServerAddress>(argument));
                ++handled_;
                return true;
            case MESSAGE_CONNECT:
                ++connects_;
                return true;
            default:
                return false;
        }
    }
    void idle(i32) override { ++idles_; }
    bool wantsServer() override { return wantsServer_; }
    i32 untilDue() override { return std::numeric_limits<i32>::max(); }

    std::vector<ServerAddress> order_;
    std::atomic<int> handled_{0};
    std::atomic<int> connects_{0};
    std::atomic<int> idles_{0};
    std::atomic<bool> wantsServer_{false};
    CapturedLog log_;
    PosixHost host_;
    MessageQ queue_{host_.host, log_, *this};
};

TEST_F(MessageQueue, AMessagePostedByAHandlerComesBehindThoseThatWaited) {
    queue_.post(MESSAGE_LOAD);
    queue_.post(MESSAGE_SAVE, ServerAddress{1, 0});
    queue_.postFront(MESSAGE_SAVE, ServerAddress{0, 0});
    queue_.post(4'000'000'000U);
    while (queue_.process()) continue;
    for (int i = 0; i < 100; ++i) queue_.postOnce(MESSAGE_CONNECT);
    while (queue_.process()) continue;
    EXPECT_EQ(connects_, 2) << "the one at the head may be in hand";
    EXPECT_EQ(order_, (std::vector<ServerAddress>{{0, 0}, {1, 0}, {99, 0}}));
    EXPECT_EQ(log_.take(), "ERROR: Unknown message in Process\n") << "a number without a handler is removed";
}

TEST_F(MessageQueue, HandlesEachThreadsMessagesInOrderAndConnectsByItselfOnceAMinute) {
    queue_.start();
    inFourThreads([this](int poster) {
        for (u16 i = 0; i < 10; ++i) queue_.post(MESSAGE_SAVE, ServerAddress{static_cast<u32>(poster), i});
    });
    ASSERT_TRUE(eventually([this] { return handled_ == 40 && idles_ > 0; }));
    EXPECT_EQ(connects_, 0);
    wantsServer_ = true;
    queue_.wake();
    ASSERT_TRUE(eventually([this] { return connects_ == 1; }));
    // One more idle turn, after a message.
    const int idle = idles_;
    queue_.post(MESSAGE_SAVE, ServerAddress{4, 0});
    ASSERT_TRUE(eventually([&] { return handled_ == 41 && idles_ > idle; }));
    queue_.stop();
    EXPECT_EQ(connects_, 1);
    u16 next[5] = {};
    for (const ServerAddress& address : order_) EXPECT_EQ(address.port, next[address.ip]++);
}

}  // namespace
