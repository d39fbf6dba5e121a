#include "app/MessageQ.h"

#include "app/UIInterface.h"

namespace {

constexpr u32 pauseAfterMessage = 10;     // ms
constexpr u32 pauseWhenIdle = 300;        // ms; a post ends it
constexpr i32 autoConnectEvery = 60'000;  // ms

}  // namespace

MessageQ::~MessageQ() {
    stop();
    deleteAll(queue_);
}

void MessageQ::start() {
    lastTick_.get();
    Thread::start();
}

void MessageQ::run() {
    if (process()) {
        sleepFor(pauseAfterMessage);
        return;
    }
    idleTurn();
    sleepFor(pauseWhenIdle);
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
    const MessageDuties::Handler handler =
        message->number < MESSAGE_COUNT ? duties_.handlers[message->number] : nullptr;
    if (handler) {
        handler(message->argument);
    } else {
        theLog->print("ERROR: Unknown message in Process\n");
    }
    queue_.remove(message);
    delete message;
    return true;
}

// Time that handlers spent is counted in the next idle turn.
void MessageQ::idleTurn() {
    const i4_time now;
    const i32 elapsed = now.diff(lastTick_);
    lastTick_ = now;
    if (autoConnectTimer_ > 0) autoConnectTimer_ -= elapsed;
    if (duties_.idle) duties_.idle(elapsed);
    if (autoConnectTimer_ <= 0 && duties_.wantsServer && duties_.wantsServer()) {
        autoConnectTimer_ = autoConnectEvery;
        post(MESSAGE_CONNECT);
    }
}
