// Waits for a condition that another thread or process causes.
#pragma once

#include <algorithm>
#include <chrono>
#include <thread>

// The time limit of every wait in a test. A wait ends as soon as its condition holds.
inline constexpr std::chrono::seconds patience{60};

// Repeats `holds` until it returns true; false after the time limit.
template <class Condition>
bool eventually(Condition holds, std::chrono::milliseconds limit = patience) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (std::chrono::milliseconds pause{1}; !holds(); pause = std::min(2 * pause, decltype(pause){16})) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(pause);
    }
    return true;
}
