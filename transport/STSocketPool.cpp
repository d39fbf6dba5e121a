#include "transport/STSocketPool.h"

#include <numeric>

#include "core/LineSpeeds.h"
#include "transport/Transport.h"

namespace {

constexpr i32 updateInterval = 4000;

}  // namespace

STSocketPool::~STSocketPool() {
    stop();
    deleteConnections();
}

void STSocketPool::start() {
    if (state() != notRunning) return;
    timer_ = 0;
    up_ = {};
    down_ = {};
    up_.entries.fill(transport().line.maxUpSpeed);
    down_.entries.fill(transport().line.maxDownSpeed);
    PacedPool::start();
}

void STSocketPool::elapsed(i32 ms) {
    timer_ += ms;
    if (timer_ <= updateInterval) return;
    timer_ = 0;
    updateSpeeds();
}

void STSocketPool::updateSpeeds() {
    LineSpeeds& line = transport().line;
    line.maxDownSpeed = down_.update(line.curDownSpeed, line.maxDownSpeed);
    line.maxUpSpeed = up_.update(line.curUpSpeed, line.maxUpSpeed);
}

f32 STSocketPool::History::update(f32 current, f32 maximum) {
    if (current == 0) return maximum;
    entries[index] = maximum > current ? (3 * maximum + current) / 4 : current;
    index = (index + 1) % static_cast<u32>(entries.size());
    const f32 mean = std::accumulate(entries.begin(), entries.end(), 0.0F) / static_cast<f32>(entries.size());
    return current > mean ? current : mean;
}

const char* STSocketPool::failureText() const { return "*** Exception in stsocketpool::run()\n"; }
