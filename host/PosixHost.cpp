#include "host/PosixHost.h"

#include <pthread.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>

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

class PosixLoop final : public Loop {
  public:
    explicit PosixLoop(Thread& thread) : thread_(thread) {}
    ~PosixLoop() override { stop(); }

    bool start() override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            woken_ = false;
        }
        joinable_ = i4_start_thread(pthread_, enter, this);
        return joinable_;
    }
    void stop() override {
        if (!joinable_) return;
        joinable_ = false;
        if (::pthread_equal(pthread_, ::pthread_self())) {
            ::pthread_detach(pthread_);
        } else {
            ::pthread_join(pthread_, nullptr);
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
    static void* enter(void* self) {
        static_cast<PosixLoop*>(self)->turnUntilTheEnd();
        return nullptr;
    }
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
    bool woken_ = false;     // guarded by mutex_
    bool joinable_ = false;  // of start() and stop()
    pthread_t pthread_{};
};

}  // namespace

Moment PosixClock::now() const {
    return {
        std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - processStart).count()};
}

u32 PosixClock::fileTime() const { return static_cast<u32>(std::time(nullptr)); }

u32 PosixRandom::next() {
    u32 value = 0;
    fill(&value, sizeof value);
    return value;
}

void PosixRandom::fill(void* out, std::size_t count) {
    auto* bytes = static_cast<u8*>(out);
    for (std::size_t done = 0; done < count;) {
        const ssize_t got = ::getrandom(bytes + done, count - done, 0);
        if (got > 0) {
            done += static_cast<std::size_t>(got);
        } else if (errno != EINTR) {
            i4_error()("The system gives no random bytes: no identity can be made");
            return;
        }
    }
}

std::unique_ptr<Loop> PosixScheduler::makeLoop(Thread& thread) { return std::make_unique<PosixLoop>(thread); }
