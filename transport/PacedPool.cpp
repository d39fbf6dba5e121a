#include "transport/PacedPool.h"

#include <algorithm>

#include "core/LineSpeeds.h"
#include "i4min/memory/error.h"
#include "transport/Connection.h"
#include "transport/Packet.h"
#include "transport/Transport.h"

namespace {

constexpr i64 idleRest = 60;  // ms
constexpr i64 turnRest = 10;  // ms

i32 charged(i32 budget, u32 moved) {
    return moved >= static_cast<u32>(budget) ? 0 : budget - static_cast<i32>(moved);
}

}  // namespace

i32 BudgetClock::grant(f32 limit, Moment now) {
    if (limit <= 0) {
        last_ = now;
        left_ = 0;
        return unlimitedBudget;
    }
    const i32 elapsed = msBetween(last_, now);
    const f32 bytes = static_cast<f32>(elapsed) * limit;
    if (elapsed < shortestGrant || bytes < 1) return left_;
    last_ = later(last_, elapsed);
    left_ = bytes < static_cast<f32>(unlimitedBudget) ? static_cast<i32>(bytes) : unlimitedBudget;
    return left_;
}

void BudgetClock::charge(u32 bytes) { left_ = charged(left_, bytes); }

void BudgetClock::waited(i32 ms) {
    if (ms > longestWait) last_ = later(last_, ms - longestWait);
}

void PacedPool::start() {
    const Moment now = transport().host.clock.now();
    lastTime_ = restedFrom_ = now;
    upClock_.begin(now);
    downClock_.begin(now);
    SocketPool::start();
}

Rest PacedPool::run() {
    bool idle = true;
    Polled polled{};
    progress_ = movedUp_ = movedDown_ = false;
    try {
        polled = takePolled();
        if (polled.ready > 0 || polled.woken) idle = runPolled(polled);
        processChanges();
    } catch (const i4_err&) {
        transport().log.printVerbose("%s", failureText());
    }
    const Rest rest = pace(polled, idle);
    restedFrom_ = {transport().host.clock.now().us + rest.least};
    return rest;
}

bool PacedPool::runPolled(const Polled& polled) {
    const Moment now = transport().host.clock.now();
    const LineSpeeds& line = transport().line;
    const i32 waited = msBetween(restedFrom_, now);
    upClock_.waited(waited);
    downClock_.waited(waited);
    if (polled.ready > 0) {
        const i32 ms = msBetween(lastTime_, now);
        lastTime_ = later(lastTime_, ms);
        budgets_.recvBudget = downClock_.grant(line.userMaxDownF, now);
        budgets_.sendBudget = upClock_.grant(line.userMaxUpF, now);
        elapsed(ms);
    }
    const bool idle = turns();
    return idle || budgets_.sendBudget == 0 || budgets_.recvBudget == 0;
}

Rest PacedPool::pace(const Polled& polled, bool idle) {
    const Rest rest = restWithSockets();
    if (polled.ready == 0) return rest;  // the rest took its time, or a wake-up asked for this turn
    const LineSpeeds& line = transport().line;
    const bool freeUp = movedUp_ && (line.userMaxUpF <= 0 || upClock_.left() > 0);
    const bool freeDown = movedDown_ && (line.userMaxDownF <= 0 || downClock_.left() > 0);
    if (progress_ || freeUp || freeDown) return rest;
    const i64 pause = (idle ? idleRest : turnRest) * 1000;
    return {pause, std::max(pause, rest.most)};
}

bool PacedPool::turns() { return runTurns(); }

bool PacedPool::runTurns() {
    bool idle = true;
    for (const Ref<Connection>& connection : active_) {
        if (!connection->isReady()) continue;
        idle = false;
        runTurn(*connection);
    }
    rotate();
    return idle;
}

void PacedPool::runTurn(Connection& connection) {
    const u32 sent = connection.bytesSent;
    const u32 received = connection.bytesReceived;
    connection.doTask(this);
    const u32 up = connection.bytesSent - sent;
    const u32 down = connection.bytesReceived - received;
    budgets_.sendBudget = charged(budgets_.sendBudget, up);
    budgets_.recvBudget = charged(budgets_.recvBudget, down);
    upClock_.charge(up);
    downClock_.charge(down);
    movedUp_ = movedUp_ || up > 0;
    movedDown_ = movedDown_ || down > 0;
}

void PacedPool::rotate() {
    if (!active_.empty()) std::rotate(active_.begin(), active_.begin() + 1, active_.end());
}
