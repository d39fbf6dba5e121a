// CompleteFileThread takes the end of a download, hashing the whole file and moving it, off the threads that
// have other work.
#pragma once

#include "i4min/threads/linux/Thread.h"

class DownloadBody;

// Runs once. Borrows: its download, which owns it and joins it before it goes.
class CompleteFileThread : public Thread {
  public:
    CompleteFileThread(Scheduler& scheduler, DownloadBody& download)
        : Thread(scheduler), download_(download) {}
    ~CompleteFileThread() override;
    Rest run() override;

  private:
    DownloadBody& download_;
};
