// UploadSlot, a place granted to a user who hasn't used it yet.
#pragma once

#include "i4min/memory/types.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/MD4Hash.h"
#include "meta/UserMeta.h"

class Peer;
class Upload;
class UploadOwner;
struct PeerNeeds;

// Thread: under UploadPool's lock, which owns it.
class UploadSlot {
  public:
    UploadSlot(const PeerNeeds& needs, UploadOwner& owner, u32 identity, const UserMeta& user);

    void tellPeer();           // tries to reach the user
    bool tick(i32 elapsedMs);  // false when the slot has run out
    i32 untilDue() const;      // ms until tick() has something to do
    // The transfer of this file, null where there is no such file.
    Ref<Upload> makeUpload(const MD4Hash& hash, Peer& peer);
    const UserMeta& getUser() const { return user_; }
    const char* getName() const;
    // What the controller knows this slot by; counted, unique within one run.
    u32 identity() const { return identity_; }

  private:
    const PeerNeeds& needs_;
    UploadOwner& owner_;
    bool retry_ = false;
    i32 elapsed_ = 0;       // ms since the user was last tried
    bool isTimed_ = false;  // the first tick starts the time: what passed before isn't this slot's
    UserMeta user_;
    const u32 identity_;
};
