// UploadPool: decides who may download from this client.
#pragma once

#include "i4min/file/file.h"
#include "i4min/memory/LL.h"
#include "i4min/memory/mutex.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/MD4Hash.h"
#include "peer/CalledUsers.h"
#include "peer/QueuedUser.h"
#include "peer/Upload.h"

class UploadSlot;
struct PeerNeeds;

// The rule that limits the number of uploads. Speeds are in KB/s.
// A plain value.
struct SlotRule {
    f32 capacity;  // upload capacity of the line
    f32 used;      // speed of the uploads that aren't replaceable
    u32 slots;     // granted but not used yet
    u32 active;    // slots and uploads without the replaceable ones

    bool canStart() const;
};

// Holds the queue of waiting users, the granted slots and the running uploads:
//
//   state         where                 entered by                   left by
//   waiting       queue                 gotSlotRequest, endUpload    assignSlots; 45 minutes; makeRoom
//   called        slots                 assignSlots, gotSlotRequest  gotPartRequest; time-out, failure, gone
//   transferring  uploads               gotPartRequest               endUpload to waiting; endAllOf
//   replaceable   uploads, replaceable  markReplaceable              another upload's start, to waiting
//
// Thread: any; each operation takes the lock.    Lock order: before DLPool's and the lists of ClientApp.
// Owns: queue and slots, one reference on each upload.    Borrows: the peers that asked, until peerGone().
class CAPABILITY("uploadPool") UploadPool : public UploadOwner {
  public:
    explicit UploadPool(const PeerNeeds& needs);
    virtual ~UploadPool();
    void gotSlotRequest(Peer& peer);
    void gotCall(Peer& peer);  // after an incoming hello
    void gotPartRequest(i4_file& stream, Peer& peer);
    void stopUpload(const MD4Hash& hash, Peer& peer);
    void endAllOf(Peer& peer);  // it gave its slot back
    void peerGone(Peer& peer);
    void connectFailed(u32 ip, u16 port);
    void callbackFailed(u32 serverIp, u32 clientId);
    void endUpload(Upload& upload) override;
    void markReplaceable(Upload& upload) override;
    void tick(i32 elapsedMs);
    i32 untilDue();  // ms until tick() has work; the maximum i32 if never
    void clear();

    // For views: lock the pool, then read the lists.
    void lock() ACQUIRE() NO_THREAD_SAFETY_ANALYSIS { lock_.lock(); }
    void unlock() RELEASE() NO_THREAD_SAFETY_ANALYSIS { lock_.unlock(); }
    const LL<UploadSlot>& getSlots() const REQUIRES(this) NO_THREAD_SAFETY_ANALYSIS { return slots_; }
    const LL<QueuedUser>& getQueue() const REQUIRES(this) NO_THREAD_SAFETY_ANALYSIS { return queue_; }

  private:
    bool canStartSlot() const REQUIRES(lock_);
    UploadSlot* slotOf(const Peer& peer) const REQUIRES(lock_);
    UploadSlot* slotFor(const Peer& peer) const REQUIRES(lock_);  // its own, or one that it was told of
    void addSlot(std::unique_ptr<QueuedUser> user) REQUIRES(lock_);
    void removeSlot(UploadSlot* slot) REQUIRES(lock_);  // and destroys it
    void dropSlot(UploadSlot* slot) REQUIRES(lock_);    // removes it and assigns its place; null is allowed
    void assignSlots() REQUIRES(lock_);
    bool isStale(const QueuedUser& user) const REQUIRES(lock_);  // has stopped asking
    QueuedUser* nextInLine() const REQUIRES(lock_);
    bool mayCall(const QueuedUser& user) const REQUIRES(lock_);
    bool hasUpload(const UserMeta& user) const REQUIRES(lock_);
    QueuedUser* waitingAs(const UserMeta& user) const REQUIRES(lock_);
    void enqueue(std::unique_ptr<QueuedUser> user) REQUIRES(lock_);
    std::unique_ptr<QueuedUser> takeFromQueue(QueuedUser& user) REQUIRES(lock_);
    // Whether a newcomer may wait. When the queue is full, somebody may have to give way.
    bool hasRoomFor(const QueuedUser& newcomer) REQUIRES(lock_);
    bool makeRoom() REQUIRES(lock_);
    Ref<Upload> uploadFor(const MD4Hash& hash, Peer& peer, bool& isNew) EXCLUDES(lock_);
    Upload* findUpload(const MD4Hash& hash, const Peer& peer) const REQUIRES(lock_);
    void replaceOldest() REQUIRES(lock_);
    void endLocked(Upload& upload) REQUIRES(lock_);
    bool removeUpload(Upload& upload) REQUIRES(lock_);  // false if it isn't running
    // Asserts that queueLength_ is the queue's length and that every replaceable upload is running. Debug
    // builds call it after each change.
    void checkInvariants() const REQUIRES(lock_);

    const PeerNeeds& needs_;
    i4_mutex lock_{LockRank::uploadPool};
    std::vector<Ref<Upload>> uploads_ GUARDED_BY(lock_);
    OwnLL<QueuedUser> queue_ GUARDED_BY(lock_);  // first in line first; each user once
    OwnLL<UploadSlot> slots_ GUARDED_BY(lock_);
    LL<Upload> replaceable_ GUARDED_BY(lock_);  // oldest first
    CalledUsers called_ GUARDED_BY(lock_);
    i32 assignTimer_ GUARDED_BY(lock_) = 0;  // ms since the last assignment
    i32 queueLength_ GUARDED_BY(lock_) = 0;
    u32 slotsMade_ GUARDED_BY(lock_) = 0;  // source of slot identities
};
