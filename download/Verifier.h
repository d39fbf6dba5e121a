// Verifier, which hashes the parts of downloads off the threads that serve connections.
#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "download/SourceAccounts.h"
#include "i4min/file/Disk.h"
#include "i4min/memory/mutex.h"
#include "i4min/threads/linux/RefCounter.h"
#include "i4min/threads/linux/Thread.h"

struct CheckedPart;

// A part that is here, and what it is to be compared with.
struct PartToCheck {
    std::function<void(const CheckedPart&)> tell;  // gets the outcome, on the verifier's thread
    u32 part = 0;
    std::shared_ptr<i4_disk_file> file;
    u32 start = 0;
    u32 end = 0;
    MD4Hash expected;
    std::vector<GivenPiece> givers;    // who gave it
    std::vector<GivenPiece> evidence;  // who gave it before, when it failed
};

// What came of it. The pieces are the givers of one that failed, or the evidence of one that passed, with the
// digests of the bytes that are there now.
struct CheckedPart {
    enum class Outcome { passed, failed, unreadable, abandoned };
    u32 part;
    Outcome outcome;
    std::vector<GivenPiece> pieces;
};

// Oldest first; parts of the same length are hashed side by side. Its thread starts with the first part.
// Thread: any for check(); the work runs on its own.
class Verifier : public Thread {
  public:
    explicit Verifier(Scheduler& scheduler) : Thread(scheduler) {}
    ~Verifier() override;
    Rest run() override;
    // False, and nothing is done, while too many parts wait.
    bool check(PartToCheck part) EXCLUDES(lock_);
    bool isIdle() const EXCLUDES(lock_);
    // Ends the thread and forgets what waits.
    void shutdown() EXCLUDES(lock_);

  private:
    std::vector<PartToCheck> takeNext() EXCLUDES(lock_);

    mutable i4_mutex lock_{LockRank::leaf};
    std::deque<PartToCheck> waiting_ GUARDED_BY(lock_);
    std::size_t atWork_ GUARDED_BY(lock_) = 0;
};
