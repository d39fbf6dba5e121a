// UploadSlot: an upload place granted to a user who hasn't used it yet.
#pragma once

#include "i4min/memory/types.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/MD4Hash.h"
#include "meta/UserMeta.h"

class Peer;
class Upload;
class UploadOwner;
struct PeerNeeds;

// Tells the user, and runs out if he requests nothing in time. Retries while too many connections are open.
// Thread: guarded by UploadPool's lock. Owned by UploadPool.
class UploadSlot {
  public:
    UploadSlot(const PeerNeeds& needs, UploadOwner& owner, u32 identity, const UserMeta& user);

    void tellPeer();           // tries to reach the user
    bool tick(i32 elapsedMs);  // false when the slot has run out
    i32 untilDue() const;      // ms until tick() has work
    // Makes the upload of this file. Returns null if there is no such file.
    Ref<Upload> makeUpload(const MD4Hash& hash, Peer& peer);
    const UserMeta& getUser() const { return user_; }
    const char* getName() const;
    // The slot's number for the controller; unique within one run.
    u32 identity() const { return identity_; }

  private:
    const PeerNeeds& needs_;
    UploadOwner& owner_;
    bool retry_ = false;
    i32 elapsed_ = 0;       // ms since the last try to reach the user
    bool isTimed_ = false;  // false before the first tick, whose time doesn't count for this slot
    UserMeta user_;
    const u32 identity_;
};
