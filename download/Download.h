// Download, one file that the user wants. It holds the lock and forwards to its state.
#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "download/CompleteFileThread.h"
#include "download/DownloadBody.h"
#include "download/DownloadState.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/threads/linux/RefCounter.h"
#include "i4min/threads/linux/semaphore.h"

// The lock of a Download: a semaphore of one, so that a display can try it for a moment. Not recursive.
class CAPABILITY("download") DownloadLock {
  public:
    DownloadLock() { semaphore_.signal(); }
    void lock() ACQUIRE();
    bool tryLock(u32 ms) TRY_ACQUIRE(true);
    void unlock() RELEASE();
    // For the states, which run under it without the compiler's knowledge: a debug build aborts unless this
    // thread holds it.
    void assertHeld() const ASSERT_CAPABILITY();

  private:
    i4_semaphore semaphore_;
    std::atomic<std::thread::id> holder_;
};

// Thread: any. Operations take the lock around the state's, but for those that say otherwise. A forwarded
// operation must not call a locked one of the same Download.
// Owns: its state, progress and completer; one reference on its PartialFile.
class Download : public RefCounter, public DownloadBody {
  public:
    Download(const DownloadNeeds& needs, DownloadOwner& owner);
    ~Download() override;

    bool create(FileMeta& meta) EXCLUDES(lock_);  // false, and said, when there is no room for the temp file
    bool load(const FileMeta& record) EXCLUDES(lock_);  // true where its parts are to be verified
    // Checks the parts of a loaded file, then says how it ended; nothing of it when the caller gives up.
    // Thread: the hash thread's.
    void verify(const GiveUp& giveUp) EXCLUDES(lock_);
    void hashingEnded() EXCLUDES(lock_);   // all parts of a loaded file are checked
    void hashingFailed() EXCLUDES(lock_);  // a part of a loaded file couldn't be read

    i32 getStatus();        // waits 1 ms at most, 0 where the lock can't be had
    f32 getAvailability();  // the share of the file that is here, coming, or with a source
    // The same in percent, cut: below the whole it never shows as 100.
    i32 availabilityPercent();
    bool isPaused() const { return paused_.get() != 0; }
    u32 bytesToFill() EXCLUDES(lock_);
    u32 diskNeeded() EXCLUDES(lock_);
    i4_string getName() const;

    void tick(i32 elapsedMs) EXCLUDES(lock_);
    void pause() EXCLUDES(lock_);
    void resume() EXCLUDES(lock_);
    void cancel() EXCLUDES(lock_);
    void diskFull() EXCLUDES(lock_);
    u32 diskFreed() EXCLUDES(lock_);
    void idChanged() EXCLUDES(lock_);
    // At shut-down. The result is the record to save, null for none.
    std::unique_ptr<FileMeta> stop() EXCLUDES(lock_);
    void addSource(const UserMeta& user) EXCLUDES(lock_);
    bool on(Peer& peer, const PeerEvent& event) EXCLUDES(lock_);
    void on(const ReachEvent& event) EXCLUDES(lock_);
    void gotHashSet(i4_file& stream) EXCLUDES(lock_);
    // Thread: the verifier's.
    void partChecked(const CheckedPart& checked) EXCLUDES(lock_);

    // Whether tick() may have something to do. Thread: any.
    bool wantsTicks() const { return wantsTicks_ != 0; }
    // Null before create() or load(). Thread: any.
    Ref<PartialFile> partialRef() const { return partial_; }

    // For displays, which take it for a moment only, and what they then see.
    DownloadLock& stateLock() RETURN_CAPABILITY(lock_) { return lock_; }
    DownloadState& state() REQUIRES(lock_) { return *state_; }

    // All zero until the file is set up; for a loaded file, until hashing ends. Thread: any.
    MD4Hash hash() const EXCLUDES(hashLock_);

    Relaxed<i32> priority{1};  // 0 low, 1 normal, 2 high

  private:
    DownloadState& become(Stage stage) override REQUIRES(lock_);
    void leavePool() override;
    void show() override;
    void startCompleter() override;
    void completed(PartialFile::Completion how) override EXCLUDES(lock_);
    bool check(u32 part) override;
    Chunk takeOver(FileSource& taker, f32 itsSpeed) override;
    void leaveParts(u32 account) override;
    bool hasUnsuspected() const override;
    std::vector<u32> judge(const CheckedPart& checked);
    std::unique_ptr<DownloadState> makeState(Stage stage);
    void setHash(const MD4Hash& hash) EXCLUDES(hashLock_);

    mutable DownloadLock lock_;
    std::unique_ptr<DownloadState> state_ GUARDED_BY(lock_);
    mutable i4_mutex hashLock_{LockRank::leaf};
    MD4Hash hash_ GUARDED_BY(hashLock_);
    Relaxed<u8> paused_{0};
    Relaxed<u8> wantsTicks_{1};
    CompleteFileThread completer_{needs.core.host.scheduler, *this};
};
