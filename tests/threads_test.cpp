// Threads and their states, the semaphore, counted references, start-up objects, time, and what a debug build
// checks of threads and locks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "i4min/memory/mutex.h"
#include "i4min/threads/linux/RefCounter.h"
#include "i4min/threads/linux/Thread.h"
#include "i4min/threads/linux/i4_time.h"
#include "i4min/threads/linux/linux_threads.h"
#include "i4min/threads/linux/semaphore.h"

namespace {

// A thread that tells of each turn, and does in it what the test says.
class Worker : public Thread {
  public:
    ~Worker() override { stop(); }
    void run() override {
        ++turns;
        turn.signal();
        if (endAt == turns) {
            endLoop();
        } else {
            sleepFor(nap);
        }
    }
    void finished() override {
        stateInFinished = state();
        ended.signal();
    }
    using Thread::wake;

    i4_semaphore turn;
    i4_semaphore ended;
    std::atomic<int> turns{0};
    int endAt = -1;
    u32 nap = 3'600'000;
    State stateInFinished = running;
};

void inFourThreads(const std::function<void(int)>& work) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(work, t);
    for (auto& thread : threads) thread.join();
}

TEST(Threads, StopWakesASleeperAndItStartsAgain) {
    Worker worker;
    worker.stop();
    EXPECT_FALSE(worker.isStopping()) << "there was nothing to stop";
    for (int round = 1; round <= 3; ++round) {
        worker.start();
        ASSERT_TRUE(worker.turn.wait(0));
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
        ASSERT_TRUE(worker.turn.wait(0)) << "a wake ends one nap";
        worker.wake();
    }
    worker.stop();
    worker.nap = 0;
    inFourThreads([&](int t) {
        for (int n = 0; n < 50; ++n) (n + t) % 2 ? worker.start() : worker.stop();
    });
    worker.stop();
    EXPECT_EQ(worker.state(), Thread::notRunning);
}

TEST(Threads, ThatEndThemselvesHaveFinishedAndAreWaitedFor) {
    Worker worker;
    worker.endAt = 3;
    worker.nap = 0;
    for (int round = 0; round < 2; ++round) {
        worker.turns = 0;
        worker.start();
        ASSERT_TRUE(worker.ended.wait(0));
        EXPECT_EQ(worker.stateInFinished, Thread::notRunning);
        EXPECT_EQ(worker.turns, 3);
    }
    worker.stop();
    EXPECT_FALSE(worker.isStopping());

    static std::atomic<int> done{0};
    const auto function = [](void* argument) -> void* {
        i4_msleep(1);
        done += *static_cast<int*>(argument);
        return nullptr;
    };
    int one = 1;
    for (int n = 0; n < 20; ++n) EXPECT_EQ(i4_add_thread(function, 51200, &one), 0U);
    i4_wait_for_threads();
    EXPECT_EQ(done, 20);
}

// What ends a thread ends the process, with status 0 and a word on the terminal.
TEST(ThreadsDeathTest, AnErrorThatLeavesAThreadEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto dieOf = [](void* (*what)(void*)) {
        ::dup2(STDERR_FILENO, STDIN_FILENO);  // the terminal's output goes to descriptor 0
        i4_add_thread(what, 0, nullptr);
        i4_wait_for_threads();
        ::_exit(5);
    };
    EXPECT_EXIT(dieOf([](void*) -> void* { return i4_error()("the text"), nullptr; }),
                testing::ExitedWithCode(0), "^Thread error : the text\n$");
    EXPECT_EXIT(dieOf([](void*) -> void* { throw 5; }), testing::ExitedWithCode(0),
                "^Thread unkown error\n$");
}

TEST(Semaphore, KeepsSignalsLosesNoneAndTimesOut) {
    i4_semaphore semaphore;
    semaphore.signal();
    semaphore.signal();
    EXPECT_TRUE(semaphore.wait(0));
    EXPECT_TRUE(semaphore.wait(1));
    const i4_time before;
    EXPECT_FALSE(semaphore.wait(10));
    EXPECT_GE(i4_time().diff(before), 10);
    semaphore.signal();
    EXPECT_TRUE(semaphore.wait(1)) << "the one that timed out doesn't swallow the next signal";

    std::atomic<int> taken{0};
    std::thread signals([&] {
        for (int n = 0; n < 400; ++n) semaphore.signal();
    });
    inFourThreads([&](int) {
        while (taken < 400) taken += semaphore.wait(1);
    });
    signals.join();
    EXPECT_EQ(taken, 400);
    EXPECT_FALSE(semaphore.wait(1));
}

class Counted : public RefCounter {
  public:
    explicit Counted(std::atomic<int>& deaths) : deaths_(deaths) {}
    ~Counted() override { ++deaths_; }

  private:
    std::atomic<int>& deaths_;
};

TEST(Counting, RefsHoldMoveAndLetGo) {
    std::atomic<int> deaths{0};
    auto* object = new Counted(deaths);
    object->addRef();
    object->addRef();
    object->release();
    EXPECT_EQ(deaths, 0);
    object->release();
    (new Counted(deaths))->release();
    EXPECT_EQ(deaths, 2) << "a release that nothing was added for deletes too";

    Ref<Counted> first(new Counted(deaths));
    Ref<Counted> second(first);
    Ref<Counted> moved(std::move(first));
    EXPECT_FALSE(first);
    second = second;
    second = std::move(moved);
    Ref<Counted> adopted = Ref<Counted>::adopt(second.detach());
    EXPECT_FALSE(second);
    EXPECT_EQ(deaths, 2);
    adopted = Ref<Counted>(new Counted(deaths));
    EXPECT_EQ(deaths, 3);
    inFourThreads([&](int) {
        for (int n = 0; n < 500; ++n) const Ref<Counted> copy(adopted);
    });
    EXPECT_EQ(deaths, 3);
    adopted.reset();
    adopted.reset();
    EXPECT_EQ(deaths, 4);
}

std::string told;

// Tells its phase at each of its calls.
class Starter : public i4_thread_init_class {
  public:
    explicit Starter(u32 phase) : phase_(phase) {}
    u32 init_type() override { return phase_; }
    void init() override { tell(i4_is_initialized() ? "+" : "-"); }
    void uninit() override { tell("~"); }
    void thread_init() override { tell("t"); }
    void thread_uninit() override { tell("~t"); }

  private:
    void tell(const char* what) { told += what + std::to_string(phase_) + " "; }
    const u32 phase_;
};

TEST(StartUp, GoesThroughThePhases) {
    Starter nine(9);
    auto gone = std::make_unique<Starter>(4);
    Starter zero(0);
    gone.reset();
    i4_init();
    EXPECT_EQ(std::exchange(told, ""), "-0 +9 t0 t9 ");
    i4_uninit();
    EXPECT_EQ(std::exchange(told, ""), "~t0 ~t9 ~9 ~0 ");
    EXPECT_FALSE(i4_is_initialized());
}

TEST(Entry, TakesTheArgumentsAndTellsOfErrors) {
    static std::string seen;
    char name[] = "tarnwick";
    char word[] = "w4";
    char* argv[] = {name, word, nullptr};
    const auto application = [](int argc, char** arguments) {
        seen = std::to_string(argc) + arguments[1] + i4_argv.getAt(0)->c_str() + i4_argv.getAt(1)->c_str();
    };
    EXPECT_EQ(i4_main(2, argv, application), 1);
    EXPECT_EQ(seen, "2w4tarnwickw4");
    testing::internal::CaptureStdout();
    EXPECT_EQ(i4_main(2, argv, [](int, char**) { i4_error("a/b.cpp", 12)("text"); }), 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unrecoverable error at a/b:12 : text");
    testing::internal::CaptureStdout();
    std::thread([&] { i4_main(2, argv, [](int, char**) { throw i4_err("bare"); }); }).join();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unrecoverable error");
}

TEST(Time, AddsAndComparesAcrossSeconds) {
    const struct {
        i32 start, add, seconds, microseconds;
    } cases[] = {{0, 999, 0, 999000},   {0, 1000, 1, 0},     {900, 100, 1, 0},         {900, 2350, 3, 250000},
                 {3000, -1, 2, 999000}, {3100, -1100, 2, 0}, {3000, -2500, 0, 500000}, {500, 0, 0, 500000}};
    for (const auto& c : cases) {
        i4_time start;
        start.set(c.start);
        i4_time point = start;
        point.add(c.add);
        EXPECT_EQ(point.seconds, c.seconds) << c.start << "+" << c.add;
        EXPECT_EQ(point.microseconds, c.microseconds) << c.start << "+" << c.add;
        EXPECT_EQ(point.diff(start), c.add);
        EXPECT_EQ(point < start, c.add < 0);
        EXPECT_EQ(point > start, c.add > 0);
    }
    i4_time early;
    early.set(0);
    i4_time late = early;
    late.seconds = 30 * 24 * 3600;
    EXPECT_EQ(late.diff(early), static_cast<i32>(2'592'000'000U)) << "wraps, and is no error";
}

TEST(DebugBuildDeathTest, AbortsOutOfTheOrderOfLocks) {
    if (!debugBuild) GTEST_SKIP();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    i4_mutex low(LockRank::downloads);
    i4_mutex high(LockRank::download);
    i4_mutex equal(LockRank::download);
    // Given back out of order; another thread has an order of its own, and so has who only tries.
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
}

TEST(DebugBuildDeathTest, AbortsWhereAThreadsOwnWorkIsDoneOnAnother) {
    if (!debugBuild) GTEST_SKIP();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    class Checked : public Worker {
      public:
        void run() override {
            checkOwnThread();
            Worker::run();
        }
    };
    Checked worker;
    worker.checkOwnThread();
    worker.start();
    worker.turn.wait(0);
    worker.stop();
    worker.checkOwnThread();
    const auto interfere = [&] {
        worker.start();
        worker.turn.wait(0);
        worker.checkOwnThread("the test");
    };
    EXPECT_DEATH(interfere(), "thread: the test was called on another thread than its own");
}

}  // namespace
