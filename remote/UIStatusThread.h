// UIStatusThread sends a controller the state of downloads and uploads, while it asks for them.
#pragma once

#include "i4min/threads/linux/Thread.h"

class GUIController;

// Borrows: its controller, which owns it and stops it before it goes.
class UIStatusThread : public Thread {
  public:
    UIStatusThread(GUIController& controller, u32 intervalMs)
        : controller_(controller), interval_(intervalMs) {}
    ~UIStatusThread() override;
    void run() override;

  private:
    GUIController& controller_;
    const u32 interval_;
};
