// HashThread verifies loaded partial files, and turns the shared directories into the shared list: it
// recognises what is known, hashes what isn't, and has the importers fill in the tags.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/string/string.h"
#include "i4min/threads/linux/RefCounter.h"
#include "i4min/threads/linux/Thread.h"

class Download;
class PartialFile;
struct i4_directory_list;

// Thread: any for the operations; the work runs on its own thread, from a request until all is done.
class HashThread : public Thread {
  public:
    HashThread();
    ~HashThread() override;
    void run() override;

    // Starts over with these directories.
    void hashDirs(std::vector<i4_string> dirs) EXCLUDES(lock_);
    // A loaded file that waits to be verified; it goes before the directories.
    void addPartial(Ref<Download> download);
    // A whole run has ended, so that the shared list may be published.
    bool isFinished() const { return finished_ != 0; }

    // The private part is HashThread.cpp's owner's to lay out.
  private:
    struct Work;
    i4_mutex lock_{LockRank::hashThread};  // held for a whole file
    std::unique_ptr<Work> work_ PT_GUARDED_BY(lock_);
    Relaxed<u8> finished_{0};
};

extern HashThread hashThread;
