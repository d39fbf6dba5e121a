// Threads and their states, the semaphore, counted references, start-up objects, time and the order of locks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
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

TEST(Threads, StopWakesASleeperAndItStartsAgain) {
    Worker worker;
    EXPECT_EQ(worker.state(), Thread::notRunning);
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
}

TEST(Threads, ThatEndThemselvesHaveFinished) {
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
}

TEST(Threads, AWakeEndsOneNap) {
    Worker worker;
    worker.start();
    for (int n = 0; n < 50; ++n) {
        ASSERT_TRUE(worker.turn.wait(0));
        worker.wake();
    }
}

TEST(Threads, StartAndStopFromManyThreads) {
    Worker worker;
    worker.nap = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&worker, t] {
            for (int n = 0; n < 50; ++n) (n + t) % 2 ? worker.start() : worker.stop();
        });
    }
    for (auto& thread : threads) thread.join();
    worker.stop();
    EXPECT_EQ(worker.state(), Thread::notRunning);
}

TEST(Threads, AreWaitedFor) {
    static std::atomic<int> done{0};
    const auto function = [](void* argument) -> void* {
        i4_msleep(1);
        done += *static_cast<int*>(argument);
        return nullptr;
    };
    int one = 1;
    for (int n = 0; n < 20; ++n) EXPECT_EQ(i4_add_thread(function, 51200, &one), 0U);
    Worker worker;
    worker.endAt = 1;
    worker.start();
    i4_wait_for_threads();
    EXPECT_EQ(done, 20);
    EXPECT_TRUE(worker.ended.wait(1));
}

class Thrower : public Thread {
  public:
    ~Thrower() override { stop(); }
    void run() override { what(); }
    void (*what)() = nullptr;
};

// What ends a thread ends the process, with status 0 and a word on the terminal.
TEST(ThreadsDeathTest, AnErrorThatLeavesAThreadEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto dieOf = [](void (*what)()) {
        ::dup2(STDERR_FILENO, STDIN_FILENO);  // the terminal's output goes to descriptor 0
        Thrower thrower;
        thrower.what = what;
        thrower.start();
        i4_wait_for_threads();
        ::_exit(5);
    };
    EXPECT_EXIT(dieOf([] { i4_error()("the text"); }), ::testing::ExitedWithCode(0),
                "^Thread error : the text\n$");
    EXPECT_EXIT(dieOf([] { throw 5; }), ::testing::ExitedWithCode(0), "^Thread unkown error\n$");
    EXPECT_EXIT(
        {
            ::dup2(STDERR_FILENO, STDIN_FILENO);
            i4_add_thread([](void*) -> void* { return i4_error()("alone"), nullptr; }, 0, nullptr);
            i4_wait_for_threads();
            ::_exit(5);
        },
        ::testing::ExitedWithCode(0), "^Thread error : alone\n$");
}

TEST(Semaphore, KeepsSignalsAndTimesOut) {
    i4_semaphore semaphore;
    semaphore.signal();
    semaphore.signal();
    EXPECT_TRUE(semaphore.wait(0));
    EXPECT_TRUE(semaphore.wait(1));
    const i4_time before;
    EXPECT_FALSE(semaphore.wait(10));
    EXPECT_GE(i4_time().diff(before), 10);
    // The one that timed out doesn't swallow the next signal.
    semaphore.signal();
    EXPECT_TRUE(semaphore.wait(1));
    EXPECT_FALSE(semaphore.wait(1));
}

TEST(Semaphore, LosesAndInventsNoSignal) {
    i4_semaphore semaphore;
    std::atomic<int> taken{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            while (taken < 400) taken += semaphore.wait(1);
        });
    }
    for (int n = 0; n < 400; ++n) semaphore.signal();
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(taken, 400);
    EXPECT_FALSE(semaphore.wait(1));
}

class Counted : public RefCounter {
  public:
    explicit Counted(std::atomic<int>& deaths) : deaths_(deaths) {}
    ~Counted() override { ++deaths_; }
    Relaxed<int> uses;

  private:
    std::atomic<int>& deaths_;
};

TEST(Counting, DeletesBelowOne) {
    std::atomic<int> deaths{0};
    auto* object = new Counted(deaths);
    object->addRef();
    object->addRef();
    object->release();
    EXPECT_EQ(deaths, 0);
    object->release();
    EXPECT_EQ(deaths, 1);
    (new Counted(deaths))->release();
    EXPECT_EQ(deaths, 2) << "a release that nothing was added for deletes too";
}

TEST(Counting, RefsHoldMoveAndLetGo) {
    std::atomic<int> deaths{0};
    Ref<Counted> first(new Counted(deaths));
    Ref<Counted> second(first);
    Ref<Counted> moved(std::move(first));
    EXPECT_FALSE(first);
    second = second;
    second = std::move(moved);
    EXPECT_EQ(second->uses, 0);
    EXPECT_EQ(deaths, 0);
    Counted* bare = second.detach();
    EXPECT_EQ(second.get(), nullptr);
    Ref<Counted> adopted = Ref<Counted>::adopt(bare);
    EXPECT_EQ(deaths, 0);
    adopted = Ref<Counted>(new Counted(deaths));
    EXPECT_EQ(deaths, 1);
    adopted.reset();
    adopted.reset();
    EXPECT_EQ(deaths, 2);

    Ref<Counted> shared(new Counted(deaths));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([mine = shared] {
            for (int n = 0; n < 500; ++n) {
                const Ref<Counted> copy(mine);
                copy->uses.add(1);
            }
        });
    }
    shared.reset();
    for (auto& thread : threads) thread.join();
    threads.clear();
    EXPECT_EQ(deaths, 3);
}

std::string told;

class Starter : public i4_init_class {
  public:
    explicit Starter(u32 phase) : phase_(phase) {}
    u32 init_type() override { return phase_; }
    void init() override { told += std::to_string(phase_) + (i4_is_initialized() ? "+ " : "- "); }
    void uninit() override { told += "~" + std::to_string(phase_) + " "; }

  private:
    u32 phase_;
};

class ThreadStarter : public i4_thread_init_class {
  public:
    void init() override { told += "T" + std::to_string(init_type()) + " "; }
    void thread_init() override { told += "thread "; }
    void thread_uninit() override { told += "~thread "; }
};

TEST(StartUp, GoesThroughThePhases) {
    i4_init_class plain;
    EXPECT_EQ(plain.init_type(), 9U);
    Starter nine(9);
    auto gone = std::make_unique<Starter>(4);
    Starter zero(0);
    ThreadStarter one;
    Starter five(5);
    Starter alsoFive(5);
    gone.reset();
    i4_init();
    EXPECT_EQ(std::exchange(told, ""), "0- T1 5+ 5+ 9+ thread ");
    EXPECT_TRUE(i4_is_initialized());
    i4_uninit();
    EXPECT_EQ(std::exchange(told, ""), "~thread ~9 ~5 ~5 ~0 ");
    EXPECT_FALSE(i4_is_initialized());
}

TEST(Entry, TakesTheArgumentsAndTellsOfErrors) {
    static std::string seen;
    char name[] = "tarnwick";
    char word[] = "w4";
    char* argv[] = {name, word, nullptr};
    const auto application = [](int argc, char** arguments) {
        seen = std::to_string(argc) + arguments[1] + i4_argv.getAt(0)->c_str() + i4_argv.getAt(1)->c_str();
        EXPECT_TRUE(::pthread_equal(i4_get_main_thread(), i4_get_thread_id()));
    };
    EXPECT_EQ(i4_main(2, argv, application), 1);
    EXPECT_EQ(seen, "2w4tarnwickw4");
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(i4_main(2, argv, [](int, char**) { i4_error("a/b.cpp", 12)("text"); }), 1);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Unrecoverable error at a/b:12 : text");
    ::testing::internal::CaptureStdout();
    std::thread([&] { i4_main(2, argv, [](int, char**) { throw i4_err("bare"); }); }).join();
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Unrecoverable error");
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
        EXPECT_EQ(point >= start, c.add >= 0);
        EXPECT_EQ(point > start, c.add > 0);
        EXPECT_EQ(point <= start, c.add <= 0);
    }
    i4_time early;
    early.set(0);
    i4_time late = early;
    late.seconds = 30 * 24 * 3600;
    EXPECT_EQ(late.diff(early), static_cast<i32>(2'592'000'000U)) << "wraps, and is no error";
}

#ifndef NDEBUG
TEST(LockOrderDeathTest, IsChecked) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    i4_mutex low(LockRank::downloads);
    i4_mutex high(LockRank::download);
    i4_mutex none;
    i4_mutex equal(LockRank::download);
    {
        i4_lock first(low);
        i4_lock aside(none);
        i4_lock second(high);
        EXPECT_DEATH(equal.lock(), "lock order: rank 40 taken while rank 40 is held");
    }
    // Given back out of order; another thread has an order of its own.
    low.lock();
    high.lock();
    low.unlock();
    std::thread([&] { i4_lock other(low); }).join();
    EXPECT_DEATH(low.lock(), "lock order: rank 30 taken while rank 40 is held");
    high.unlock();
    i4_lock again(low);
}
#endif

}  // namespace
