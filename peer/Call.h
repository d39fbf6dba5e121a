// Call, a chat with one user.
#pragma once

#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/UserMeta.h"

class Peer;
struct PeerNeeds;

//   from   event                                         to
//   none   connect(): connected / on its way / neither   0 / 1 / 3
//   1      peerConnected                                 0
//   0      peerGone                                      3
//   any    refused                                       3
enum CallState : u32 {
    CALL_CONNECTED = 0,
    CALL_CONNECTING = 1,
    CALL_ENDED = 3,
};

// Thread: any. Lives as long as the process, in the CallList.
class Call {
  public:
    Call(const PeerNeeds& needs, const UserMeta& user);

    // Looks for the user, once. The list has the call by then, so that no event passes it by.
    void connect(const UserMeta& user) EXCLUDES(lock_);
    bool send(const char* text) EXCLUDES(lock_);  // true if the text went out
    u32 state() const { return state_; }
    void copyUser(UserMeta& out) const EXCLUDES(lock_);
    MD4Hash userHash() const EXCLUDES(lock_);

    void peerConnected(Peer& peer) EXCLUDES(lock_);
    void peerGone(Peer& peer) EXCLUDES(lock_);
    void refused(const UserMeta& user) EXCLUDES(lock_);

  private:
    bool isUser(const UserMeta& other) const REQUIRES(lock_);

    const PeerNeeds& needs_;
    mutable i4_mutex lock_{LockRank::call};
    Ref<Peer> peer_ GUARDED_BY(lock_);
    Relaxed<u32> state_{CALL_CONNECTING};
    UserMeta user_ GUARDED_BY(lock_);
};
