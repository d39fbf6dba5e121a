#include "core/MessageQ.h"

#include <algorithm>
#include <limits>

#include "core/UIInterface.h"

namespace {

constexpr i64 restAfterMessage = 10;      // ms; a post ends it
constexpr i32 autoConnectEvery = 60'000;  // ms

}  // namespace

MessageQ::~MessageQ() {
    stop();
    clear();
}

void MessageQ::clear() { deleteAll(queue_); }

void MessageQ::start() {
    lastTick_ = clock_.now();
    Thread::start();
}

Rest MessageQ::run() {
    if (process()) return Rest::atMost(restAfterMessage);
    idleTurn();
    return untilDue();
}

void MessageQ::post(u32 number, QArgument argument) {
    queue_.add(new QMessage{number, std::move(argument)});
    wake();
}

void MessageQ::postOnce(u32 number) {
    {
        const i4_guard guard(queue_);
        LL<QMessage>::Cursor c;
        queue_.next(c);  // may be in hand
        while (const QMessage* message = queue_.next(c)) {
            if (message->number == number) return;
        }
        queue_.addUnsafe(new QMessage{number, {}});
    }
    wake();
}

void MessageQ::postFront(u32 number, QArgument argument) {
    queue_.addFront(new QMessage{number, std::move(argument)});
    wake();
}

bool MessageQ::process() {
    checkOwnThread();
    QMessage* message = queue_.first();
    if (!message) return false;
    if (!duties_.handle(message->number, message->argument)) {
        log_.print("ERROR: Unknown message in Process\n");
    }
    queue_.remove(message);
    delete message;
    return true;
}

// Time that handlers spent is counted in the next idle turn.
void MessageQ::idleTurn() {
    const i32 elapsed = msBetween(lastTick_, clock_.now());
    lastTick_ = later(lastTick_, elapsed);
    if (autoConnectTimer_ > 0) autoConnectTimer_ -= elapsed;
    duties_.idle(elapsed);
    if (autoConnectTimer_ <= 0 && duties_.wantsServer()) {
        autoConnectTimer_ = autoConnectEvery;
        post(MESSAGE_CONNECT);
    }
}

Rest MessageQ::untilDue() {
    i32 due = duties_.untilDue();
    if (duties_.wantsServer()) due = std::min(due, autoConnectTimer_);
    return due == std::numeric_limits<i32>::max() ? Rest::untilWoken() : Rest::atMost(std::max(due, 0));
}
