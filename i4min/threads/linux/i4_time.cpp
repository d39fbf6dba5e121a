#include "i4min/threads/linux/i4_time.h"

#include <unistd.h>

#include <chrono>
#include <ctime>
#include <thread>

namespace {

constexpr i32 microsPerSecond = 1'000'000;

// The same for every caller, the constructors of static objects included.
std::chrono::steady_clock::time_point processStart() {
    static const auto start = std::chrono::steady_clock::now();
    return start;
}
[[maybe_unused]] const auto startTaken = processStart();

i64 measureClocksPerSecond() {
    const i4_time start;
    const i64 before = i4_get_clock();
    while (i4_time().diff(start) < 1000) continue;
    return i4_get_clock() - before;
}

}  // namespace

void i4_time::get() {
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    seconds = static_cast<i32>(now.tv_sec);
    microseconds = static_cast<i32>(now.tv_nsec / 1000);
}

void i4_time::add(i32 ms) {
    seconds += ms / 1000;
    microseconds += ms % 1000 * 1000;
    if (microseconds >= microsPerSecond) {
        ++seconds;
        microseconds -= microsPerSecond;
    } else if (microseconds < 0) {
        --seconds;
        microseconds += microsPerSecond;
    }
}

void i4_time::set(i32 ms) {
    seconds = ms / 1000;
    microseconds = ms % 1000 * 1000;
}

i32 i4_time::diff(const i4_time& other) const {
    const i64 apart = static_cast<i64>(seconds) - other.seconds;
    return static_cast<i32>(apart * 1000 + (microseconds - other.microseconds) / 1000);
}

bool i4_time::operator<(const i4_time& other) const {
    return seconds != other.seconds ? seconds < other.seconds : microseconds < other.microseconds;
}

u32 i4_ticks() {
    const auto elapsed = std::chrono::steady_clock::now() - processStart();
    return static_cast<u32>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count() + 1);
}

i64 i4_get_clock() { return static_cast<i64>(std::clock()); }

i64 i4_get_clocks_per_sec() {
    static const i64 measured = measureClocksPerSecond();
    return measured;
}

void i4_sleep(u32 seconds) { std::this_thread::sleep_for(std::chrono::seconds(seconds)); }
void i4_msleep(u32 ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
