// DownloadState, what a Download does in one of its states. This class has the default of every operation;
// the DLS_* classes override what differs.
#pragma once

#include <vector>

#include "download/SourceEvent.h"
#include "download/Verifier.h"
#include "i4min/memory/LL.h"

class DownloadBody;
class FileSource;
class Peer;
class UserMeta;

// The number of a state's text in the string table.
enum DownloadStatus : i32 {
    DL_STATUS_UNREADABLE = 0,
    DL_STATUS_QUEUED = 1,
    DL_STATUS_LOOKING = 2,
    DL_STATUS_PAUSED = 4,
    DL_STATUS_DISKFULL = 5,
    DL_STATUS_NOSOURCES = 6,
    DL_STATUS_HASHING = 8,
    DL_STATUS_ERROR_LOADING = 9,
    DL_STATUS_COMPLETING = 10,
    DL_STATUS_COMPLETE = 11,
    DL_STATUS_CORRUPTED = 12,
    DL_STATUS_ERROR_HASHING = 13,
};

// Thread: under Download's lock. Owned by its Download, whose become() destroys it: an operation that has
// changed the state touches no member of itself afterwards.
class DownloadState {
  public:
    DownloadState(DownloadBody& owner, i32 statusNumber) : download(owner), status(statusNumber) {}
    DownloadState(const DownloadState&) = delete;
    DownloadState& operator=(const DownloadState&) = delete;
    virtual ~DownloadState() = default;

    virtual u32 bytesToFill();  // what the file can still grow by
    virtual u32 diskNeeded() { return 0; }
    virtual bool isPaused() { return false; }
    virtual bool wantsTicks() { return false; }
    virtual LL<FileSource>* getSources() { return nullptr; }
    virtual void tick(i32 /*elapsedMs*/) {}
    virtual void pause() {}
    virtual void resume() {}
    virtual void cancel();  // deletes the files and leaves the pool
    virtual void diskFull() {}
    virtual u32 diskFreed() { return 0; }
    virtual void hashDone() {}
    virtual void stop() {}
    virtual void idChanged() {}
    virtual void addSource(const UserMeta& /*user*/) {}
    // True where a source took it.
    virtual bool on(Peer& /*peer*/, const PeerEvent& /*event*/) { return false; }
    virtual void on(const ReachEvent& /*event*/) {}
    // All part hashes are known now.
    virtual void hashSetKnown() {}
    // The verifier has checked a part; `liars` have been found to have given wrong bytes.
    virtual void partChecked(const CheckedPart& /*checked*/, const std::vector<u32>& /*liars*/) {}
    // Somebody may still give a file of one part which failed.
    virtual bool hasOthersToAsk() { return true; }

    DownloadBody& download;
    const i32 status;
};
