// DownloadBody, what the states and the sources of a download work on.
#pragma once

#include <unordered_map>
#include <vector>

#include "download/DLProgress.h"
#include "download/DownloadNeeds.h"
#include "download/PartialFile.h"
#include "download/SourceAccounts.h"

class DownloadState;
class FileSource;

// The line that all downloads share. Thread: any.
class DownloadOwner {
  public:
    virtual bool canStart() const = 0;   // whether a further source may be tried now
    virtual void sourceStarted() = 0;    // one was just tried: none other is for half a second
    virtual void transferStarted() = 0;  // of a source
    virtual void transferEnded() = 0;
    virtual void ticksWanted() = 0;  // a download has something to do again
    // A user who gave wrong bytes is no source of any file for some hours.
    virtual void ban(const SourceAccount& account) = 0;
    virtual bool isBanned(const UserMeta& user) = 0;

  protected:
    ~DownloadOwner() = default;
};

// The states of a download; DLS_States.h has the table of their changes.
enum class Stage {
    queued,
    downloading,
    paused,
    diskFull,
    noSources,
    hashing,
    pausedHashing,
    errorLoading,
    completing,
    complete,
    corrupted,
    errorHashing,
};

// Thread: under Download's lock, but for what says otherwise.
class DownloadBody {
  public:
    DownloadBody(const DownloadNeeds& outside, DownloadOwner& line) : needs(outside), owner(line) {}
    DownloadBody(const DownloadBody&) = delete;
    DownloadBody& operator=(const DownloadBody&) = delete;

    PartialFile& partial() const { return *partial_; }
    DLProgress& progress() { return progress_; }

    // Destroys the present state; the result is the new one.
    virtual DownloadState& become(Stage stage) = 0;
    virtual void leavePool() = 0;  // by message
    virtual void show() = 0;       // to the user interface
    virtual void startCompleter() = 0;
    // The completer has ended. Thread: the completer's, without the lock.
    virtual void completed(PartialFile::Completion how) = 0;
    // Has the verifier check a part; Download::partChecked() gets the outcome. False where its queue is full.
    virtual bool check(u32 part) = 0;

    // For a source with an empty place: the rest of a chunk that another one doesn't get done, which is
    // then this one's. Empty where there is none.
    virtual Chunk takeOver(FileSource& taker, f32 itsSpeed) = 0;
    // The source gives no part alone any more: what it gave of one is dropped, and another gives all of it.
    virtual void leaveParts(u32 account) = 0;
    // Some source transfers that has given nothing wrong.
    virtual bool hasUnsuspected() const = 0;

    const DownloadNeeds& needs;
    DownloadOwner& owner;
    SourceAccounts accounts;
    std::unordered_map<const Peer*, FileSource*> talking;  // the sources that talk, by their peers
    std::vector<FileSource*> talkers;                      // the same, in the order in which they began
    Relaxed<f32> speed;  // bytes per ms, the mean of the last eight samples. Thread: any

  protected:
    ~DownloadBody() = default;

    DLProgress progress_;
    Ref<PartialFile> partial_;  // set once, before the download is in the pool
};
