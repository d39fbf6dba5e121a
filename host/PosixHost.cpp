#include "host/PosixHost.h"

#include <sys/random.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <thread>

#include "i4min/memory/error.h"
#include "i4min/network/socket_set.h"
#include "i4min/threads/linux/Thread.h"
#include "i4min/threads/linux/linux_threads.h"

namespace {

using std::chrono::steady_clock;

// The same for every clock, and taken before any is asked.
const steady_clock::time_point processStart = steady_clock::now();

// Gives the calling thread the lowest priority for processor and disk.
void yieldToOthers() {
    constexpr int lowest = 19;
    constexpr int ofProcess = 1;        // IOPRIO_WHO_PROCESS, which means a thread
    constexpr int idleClass = 3 << 13;  // IOPRIO_CLASS_IDLE
    const auto self = static_cast<id_t>(::syscall(SYS_gettid));
    ::setpriority(PRIO_PROCESS, self, lowest);
    ::syscall(SYS_ioprio_set, ofProcess, static_cast<int>(self), idleClass);
}

// A thread of the system that turns one Thread object. stop() joins it, or detaches it when it is called on
// that thread itself. A resting loop waits in the poll of its socket set if it has one, otherwise on
// changed_.
class PosixLoop final : public Loop {
  public:
    explicit PosixLoop(Thread& thread) : thread_(thread) {}
    ~PosixLoop() override { stop(); }

    bool start() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            woken_ = false;
        }
        return i4_start_thread(system_, [this] { turnUntilTheEnd(); });
    }
    void stop() override {
        if (!system_.joinable()) return;
        if (system_.get_id() == std::this_thread::get_id()) {
            system_.detach();
        } else {
            system_.join();
        }
    }
    void wake() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            woken_ = true;
            changed_.notify_one();
        }
        if (i4_socket_set* set = thread_.restingSet()) set->wake();
    }

  private:
    void turnUntilTheEnd() {
        if (thread_.isBackground()) yieldToOthers();
        Rest rest = Rest::none();
        while (thread_.turn(rest)) sleep(rest);
    }
    void sleep(const Rest& rest) {
        i4_socket_set* set = thread_.restingSet();
        if (rest.least > 0) sleepFor(rest.least, [this] { return thread_.state() != Thread::running; });
        const i64 left = rest.most == Rest::unlimited ? Rest::unlimited : rest.most - rest.least;
        if (set) {
            set->poll(milliseconds(left));
        } else if (left > 0) {
            sleepFor(left, [this] { return woken_ || thread_.state() != Thread::running; });
        }
        std::lock_guard<std::mutex> lock(mutex_);
        woken_ = false;
    }
    template <class Ends>
    void sleepFor(i64 us, Ends ends) {
        std::unique_lock<std::mutex> lock(mutex_);
        if (us == Rest::unlimited) {
            changed_.wait(lock, ends);
        } else {
            changed_.wait_for(lock, std::chrono::microseconds(us), ends);
        }
    }
    // Rounded up: a turn that comes too early finds nothing to do.
    static i32 milliseconds(i64 us) {
        constexpr i64 most = 24 * 3600 * 1000;
        return us == Rest::unlimited ? -1 : static_cast<i32>(std::min((us + 999) / 1000, most));
    }

    Thread& thread_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool woken_ = false;  // guarded by mutex_
    std::thread system_;  // of start() and stop()
};

}  // namespace

Moment PosixClock::now() const {
    return {
        std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - processStart).count()};
}

u32 PosixClock::fileTime() const { return static_cast<u32>(std::time(nullptr)); }

u32 PosixRandom::next() {
    std::array<u8, sizeof(u32)> bytes{};
    fill(bytes);
    return std::bit_cast<u32>(bytes);
}

void PosixRandom::fill(std::span<u8> out) {
    while (!out.empty()) {
        const ssize_t got = ::getrandom(out.data(), out.size(), 0);
        if (got > 0) {
            out = out.subspan(static_cast<std::size_t>(got));
        } else if (errno != EINTR) {
            i4_error()("The system gives no random bytes: no identity can be made");
            return;
        }
    }
}

std::unique_ptr<Loop> PosixScheduler::makeLoop(Thread& thread) { return std::make_unique<PosixLoop>(thread); }
