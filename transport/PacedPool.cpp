#include "transport/PacedPool.h"

#include <algorithm>

#include "app/Preferences.h"
#include "app/UIInterface.h"
#include "i4min/memory/error.h"
#include "transport/Connection.h"
#include "transport/Packet.h"

namespace {

constexpr u32 idleSleep = 60;
constexpr u32 turnSleep = 10;

i32 charged(i32 budget, u32 moved) {
    return moved >= static_cast<u32>(budget) ? 0 : budget - static_cast<i32>(moved);
}

}  // namespace

i32 BudgetClock::grant(f32 limit, const i4_time& now) {
    if (limit <= 0) {
        last_ = now;
        left_ = 0;
        return unlimitedBudget;
    }
    const i32 elapsed = now.diff(last_);
    const f32 bytes = static_cast<f32>(elapsed) * limit;
    if (elapsed < shortestGrant || bytes < 1) return left_;
    last_.add(elapsed);
    left_ = bytes < static_cast<f32>(unlimitedBudget) ? static_cast<i32>(bytes) : unlimitedBudget;
    return left_;
}

void BudgetClock::charge(u32 bytes) { left_ = charged(left_, bytes); }

void BudgetClock::waited(i32 ms) {
    if (ms > longestWait) last_.add(ms - longestWait);
}

void PacedPool::start() {
    const i4_time now;
    lastTime_ = now;
    upClock_.begin(now);
    downClock_.begin(now);
    SocketPool::start();
}

void PacedPool::run() {
    bool idle = true;
    Polled polled{};
    progress_ = movedUp_ = movedDown_ = false;
    try {
        polled = pollSet();
        if (polled.ready > 0 || polled.woken) idle = runPolled(polled);
        processChanges();
    } catch (const i4_err&) {
        theLog->printVerbose("%s", failureText());
    }
    pace(polled, idle);
}

bool PacedPool::runPolled(const Polled& polled) {
    upClock_.waited(polled.waited);
    downClock_.waited(polled.waited);
    if (polled.ready > 0) {
        const i4_time now;
        const i32 ms = now.diff(lastTime_);
        lastTime_.add(ms);
        recvBudget = downClock_.grant(preferences.userMaxDownF, now);
        sendBudget = upClock_.grant(preferences.userMaxUpF, now);
        elapsed(ms);
    }
    const bool idle = turns();
    return idle || sendBudget == 0 || recvBudget == 0;
}

void PacedPool::pace(const Polled& polled, bool idle) {
    if (polled.ready == 0) return;  // the poll itself took its time, or a wake-up wants the next one
    const bool freeUp = movedUp_ && (preferences.userMaxUpF <= 0 || upClock_.left() > 0);
    const bool freeDown = movedDown_ && (preferences.userMaxDownF <= 0 || downClock_.left() > 0);
    if (progress_ || freeUp || freeDown) return;
    sleepFor(idle ? idleSleep : turnSleep);
}

bool PacedPool::turns() { return runTurns(); }

bool PacedPool::runTurns() {
    bool idle = true;
    for (LL<Connection>::Cursor c; Connection* connection = active_.next(c);) {
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
    sendBudget = charged(sendBudget, up);
    recvBudget = charged(recvBudget, down);
    upClock_.charge(up);
    downClock_.charge(down);
    movedUp_ = movedUp_ || up > 0;
    movedDown_ = movedDown_ || down > 0;
}

void PacedPool::rotate() {
    if (Connection* first = active_.removeAt(0)) active_.add(first);
}
