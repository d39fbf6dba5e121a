#include "remote/UIStatusThread.h"

#include "remote/GUIController.h"

UIStatusThread::~UIStatusThread() { stop(); }

void UIStatusThread::run() {
    sleepFor(interval_);
    if (!isStopping()) controller_.sendStatus();
}
