#include "core/MessageQ.h"

#include <algorithm>
#include <limits>

#include "core/UIInterface.h"

namespace {

constexpr i64 restAfterMessage = 10;      // ms; a new message ends it
constexpr i32 autoConnectEvery = 60'000;  // ms

}  // namespace

MessageQ::~MessageQ() {
    stop();
    clear();
}

void MessageQ::clear() {
    std::deque<QMessage> dropped;  // destroyed after the lock is released, with all that it owns
    const i4_lock guard(lock_);
    queue_.swap(dropped);
}

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
    {
        const i4_lock guard(lock_);
        queue_.push_back({number, std::move(argument)});
    }
    wake();
}

void MessageQ::postOnce(u32 number) {
    {
        const i4_lock guard(lock_);
        const std::ptrdiff_t head = queue_.empty() || inHand_ ? 0 : 1;
        const auto isSame = [&](const QMessage& message) { return message.number == number; };
        if (std::any_of(queue_.begin() + head, queue_.end(), isSame)) return;
        queue_.push_back({number, {}});
    }
    wake();
}

void MessageQ::postFront(u32 number, QArgument argument) {
    {
        const i4_lock guard(lock_);
        queue_.push_front({number, std::move(argument)});
    }
    wake();
}

std::optional<QMessage> MessageQ::take() {
    const i4_lock guard(lock_);
    inHand_ = !queue_.empty();
    if (!inHand_) return {};
    std::optional<QMessage> message(std::move(queue_.front()));
    queue_.pop_front();
    return message;
}

bool MessageQ::process() {
    checkOwnThread();
    std::optional<QMessage> message = take();
    if (!message) return false;
    if (!duties_.handle(message->number, message->argument))
        log_.print("ERROR: Unknown message in Process\n");
    const i4_lock guard(lock_);
    inHand_ = false;
    return true;
}

// Time spent in handlers counts in the next idle turn.
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
