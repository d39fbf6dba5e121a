#include "transport/ABSocketPool.h"

#include <algorithm>

#include "core/LineSpeeds.h"
#include "transport/Connection.h"
#include "transport/Packet.h"
#include "transport/Transport.h"

namespace {

constexpr i32 pauseLength = 300'000;
constexpr i32 measureLength = 45'000;
constexpr u32 busyBytes = 10'000;
constexpr i32 trickle = 256;  // bytes per turn for connections without priority

// Sums in KB/s over a measurement.
struct Rates {
    u64 up = 0;
    u64 down = 0;

    void add(const Connection& connection) {
        up += connection.bytesSent;
        down += connection.bytesReceived;
    }
    f32 upOver(i32 ms) const { return static_cast<f32>(up) / static_cast<f32>(ms); }
    f32 downOver(i32 ms) const { return static_cast<f32>(down) / static_cast<f32>(ms); }
};

Rates ratesOf(const std::vector<Ref<Connection>>& connections) {
    Rates rates;
    for (const Ref<Connection>& connection : connections) rates.add(*connection);
    return rates;
}

void raise(Relaxed<f32>& maximum, f32 speed) {
    if (speed > maximum) maximum = speed;
}

}  // namespace

ABSocketPool::~ABSocketPool() {
    stop();
    deleteConnections();
}

void ABSocketPool::elapsed(i32 ms) {
    timer_ += ms;
    tick();
}

bool ABSocketPool::turns() { return mode_ == priority ? runPriority() : runTurns(); }

const char* ABSocketPool::failureText() const { return "*** Exception in socketpool::run()\n"; }

void ABSocketPool::leaving(Connection& connection) {
    if (removeFrom(priority_, &connection) && mode_ == baseline) {
        mode_ = idle;
        timer_ = pauseLength;
    }
}

void ABSocketPool::tick() {
    if (mode_ == idle) {
        if (timer_ <= pauseLength) return;
        startBaseline();
    } else {
        if (timer_ <= measureLength) return;
        if (mode_ == baseline) {
            endBaseline(timer_);
        } else {
            endPriority(timer_);
        }
    }
    timer_ = 0;
}

void ABSocketPool::startBaseline() {
    for (const Ref<Connection>& connection : active_) {
        connection->bytesSent = 0;
        connection->bytesReceived = 0;
    }
    mode_ = baseline;
}

void ABSocketPool::endBaseline(i32 ms) {
    priority_.clear();
    Rates all;
    Rates picked;
    bool upTurn = true;
    bool downTurn = true;
    u32 others = 0;
    for (const Ref<Connection>& connection : active_) {
        all.add(*connection);
        const bool up = connection->bytesSent > busyBytes;
        if (up || connection->bytesReceived > busyBytes) {
            bool& turn = up ? upTurn : downTurn;
            if (turn) {
                picked.add(*connection);
                priority_.push_back(connection);
            } else {
                ++others;
            }
            turn = !turn;
        }
        connection->bytesSent = 0;
        connection->bytesReceived = 0;
    }
    if (others != 0) {
        baseUp_ = picked.upOver(ms);
        baseDown_ = picked.downOver(ms);
        mode_ = priority;
        return;
    }
    raise(transport().line.maxUpSpeed, all.upOver(ms));
    raise(transport().line.maxDownSpeed, all.downOver(ms));
    mode_ = idle;
}

bool ABSocketPool::runPriority() {
    bool none = true;
    for (const Ref<Connection>& connection : priority_) {
        if (!connection->isReady()) continue;
        none = false;
        runTurn(*connection);
    }
    bool nothingRan = none;
    if (none) {
        for (const Ref<Connection>& connection : active_) {
            if (!connection->isReady()) continue;
            nothingRan = false;
            const Budgets saved = budgets_;
            budgets_ = {std::min(saved.sendBudget, trickle), std::min(saved.recvBudget, trickle)};
            const Budgets given = budgets_;
            runTurn(*connection);
            budgets_ = {saved.sendBudget - (given.sendBudget - budgets_.sendBudget),
                        saved.recvBudget - (given.recvBudget - budgets_.recvBudget)};
        }
        budgets_ = {};
    }
    rotate();
    return nothingRan;
}

void ABSocketPool::endPriority(i32 ms) {
    mode_ = idle;
    const Rates picked = ratesOf(priority_);
    const Rates all = ratesOf(active_);
    transport().line.maxUpSpeed =
        adjust(baseUp_, picked.upOver(ms), all.upOver(ms), transport().line.maxUpSpeed);
    transport().line.maxDownSpeed =
        adjust(baseDown_, picked.downOver(ms), all.downOver(ms), transport().line.maxDownSpeed);
}

f32 ABSocketPool::adjust(f32 base, f32 chosen, f32 total, f32 maximum) {
    if (base <= 1.0F) return std::max(maximum, total);
    if (total == 0) return maximum;
    if (chosen - base > 0.09F) {
        return maximum < total ? total : maximum - (maximum - total) / 3;
    }
    return std::max(maximum, total + total / 8);
}
