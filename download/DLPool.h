// DLPool, which holds all downloads and is the clock of the download engine.
#pragma once

#include <deque>
#include <string>
#include <unordered_map>
#include <unordered_set>

#include "download/Download.h"
#include "i4min/memory/LLsafe.h"
#include "i4min/memory/relaxed.h"
#include "i4min/threads/linux/Thread.h"

class PartialList;
class Peer;
class UserMeta;

// Thread: any; each operation takes the list's lock but for those that say otherwise. Lock order: the list,
// then Download's lock, then the lists inside.
// Owns: one reference on each Download.
class DLPool : public Thread, public DownloadOwner {
  public:
    explicit DLPool(const DownloadNeeds& needs);
    ~DLPool() override;
    void start() override;
    Rest run() override;
    void tick(i32 elapsedMs);  // the work of one turn. Thread: its own; no lock

    void add(const FileMeta& meta);  // message 10: starts a download, or tells why not
    // One found at start; empty where there is nothing to verify.
    Ref<Download> loadDownload(const FileMeta& record);
    // One whose file is set up; one that is still being verified isn't found.
    Ref<Download> find(const MD4Hash& hash);
    // Also one that is still being verified, or couldn't be loaded.
    Ref<Download> findAny(const MD4Hash& hash);
    void remove(const Ref<Download>& download);  // message 11
    void stopAll(PartialList& saved);            // at shut-down
    void republish();
    // Fits the downloads into the space that was free at the last look, those of high priority first: what
    // doesn't fit stops. The result is the bytes that those which run still need.
    u64 checkDisk();
    u64 fitInto(u64 bytes);  // the same for that much space
    // To the download of this file.
    void on(const MD4Hash& file, Peer& peer, const PeerEvent& event);
    // To all of them.
    void on(Peer& peer, const PeerEvent& event);
    void on(const ReachEvent& event);
    void slotGranted(Peer& peer);  // also message 23
    void idChanged();
    i32 count();
    LLsafe<Download>& getDownloads() RETURN_CAPABILITY(downloads_) { return downloads_; }

    // A source was just tried: none other is for half a second. No lock.
    void sourceStarted() override;
    bool canStart() const override { return canStart_ != 0; }
    void transferStarted() override { transferCount_.add(1); }
    void transferEnded() override { transferCount_.add(-1); }
    void ticksWanted() override { wake(); }
    void ban(const SourceAccount& account) override EXCLUDES(banLock_);
    bool isBanned(const UserMeta& user) override EXCLUDES(banLock_);

  private:
    bool isDataFileInUse(const FileMeta& record);
    void enter(Ref<Download> download);
    // Empty, and nothing is changed, for one that isn't here, and for null.
    Ref<Download> takeOut(Download* download) REQUIRES(downloads_);
    void updateCanStart();
    template <class Operation>
    void forEach(Operation operation);
    // High priority first; the operation ends the walk by returning true.
    template <class Operation>
    bool byPriority(Operation operation) REQUIRES(downloads_);
    f32 tickDownloads(i32 elapsedMs);  // their total speed
    void closeIdlePeers();
    void saveDownloads();
    void measureFreeSpace();
    Rest untilDue();

    void sayAbout(u32 number, const FileMeta& file);

    struct Ban {
        MD4Hash hash;
        u32 id;
        u16 port;
        Moment until;
    };

    const DownloadNeeds& needs_;
    const Clock& clock_;
    Moment lastTick_;
    bool ticks_ = true;                                // at the last turn a download had something to do
    LLsafe<Download> downloads_{LockRank::downloads};  // in the order of adding
    std::unordered_map<MD4Hash, Download*> byRecord_ GUARDED_BY(downloads_);  // by their records' hashes
    std::unordered_set<std::string> dataFiles_ GUARDED_BY(downloads_);        // by their bare names
    i32 saveTimer_ = 300'000;                                                 // ms
    i32 diskTimer_ = 60'000;                                                  // ms
    i4_mutex banLock_{LockRank::leaf};
    std::deque<Ban> bans_ GUARDED_BY(banLock_);  // the oldest first
    Relaxed<i32> sinceStart_{500};               // ms since a source was last tried
    Relaxed<u8> canStart_{1};
    Relaxed<i32> transferCount_{0};  // of sources
    Relaxed<u64> freeSpace_{0};      // bytes, the smaller of the temp and the incoming file system
};
