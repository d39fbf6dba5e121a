#include "remote/UIStatusThread.h"

UIStatusThread::~UIStatusThread() { stop(); }

void UIStatusThread::start() {
    if (state() == notRunning) rested_ = false;
    Thread::start();
}

Rest UIStatusThread::run() {
    if (rested_.exchange(true)) send_();
    return Rest::atMost(interval_);
}
