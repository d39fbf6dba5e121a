// CompleteFileThread takes the end of a download, hashing the whole file and moving it, off the threads that
// have other work.
#pragma once

#include "i4min/threads/linux/Thread.h"

class Download;

// Runs once. Borrows: its Download, which owns it and joins it before it goes.
class CompleteFileThread : public Thread {
  public:
    explicit CompleteFileThread(Download& download) : download_(download) {}
    ~CompleteFileThread() override;
    void run() override;

  private:
    Download& download_;
};
