// UploadSlot: an upload place granted to a user who hasn't used it yet.
#pragma once

#include <memory>
#include <vector>

#include "i4min/memory/types.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/MD4Hash.h"
#include "peer/QueuedUser.h"

class Upload;
class UploadOwner;
struct PeerNeeds;

// Users at one address can't always be told apart, so a neighbour may be told of the slot. Both the neighbour
// and the user himself may then use it.
// Thread: under UploadPool's lock, which owns it.    Borrows: the connections that were told, until leave().
class UploadSlot {
  public:
    UploadSlot(const PeerNeeds& needs, UploadOwner& owner, u32 identity, std::unique_ptr<QueuedUser> user);

    void tellPeer();                     // tries to reach the user
    void tell(Peer& peer);               // grants it
    void answered();                     // the user is there
    bool isFor(const Peer& peer) const;  // the user himself: by the hash where it is known
    bool wasTold(const Peer& peer) const;
    // These two are true when nobody else may use the slot.
    bool usedBy(const Peer& peer);  // it has become a transfer
    bool leave(const Peer& peer);
    bool isUnanswered() const { return isCalled_ && !user_->hasAnswered; }
    bool tick(i32 elapsedMs);  // false when the slot has run out
    i32 untilDue() const;      // ms until tick() has work
    // Makes the upload of this file. Returns null if there is no such file.
    Ref<Upload> makeUpload(const MD4Hash& hash, Peer& peer);
    const UserMeta& getUser() const { return *user_; }
    const char* getName() const;
    // The slot's number for the controller; unique within one run.
    u32 identity() const { return identity_; }

  private:
    const PeerNeeds& needs_;
    UploadOwner& owner_;
    bool retry_ = false;
    i32 elapsed_ = 0;        // ms since the user was last tried
    bool isTimed_ = false;   // the first tick starts the time: what passed before isn't this slot's
    bool isCalled_ = false;  // we called, and he hasn't answered
    bool isUsed_ = false;    // by the user himself
    std::vector<const Peer*> told_;
    const std::unique_ptr<QueuedUser> user_;
    const u32 identity_;
};
