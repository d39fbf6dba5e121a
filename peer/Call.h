// Call: a chat with one user.
#pragma once

#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/UserMeta.h"

class Peer;
struct PeerNeeds;

//   from   event                                                   to
//   none   connect(): connected / connecting / neither             0 / 1 / 3
//   1      peerConnected                                 0
//   0      peerGone                                      3
//   any    refused                                       3
enum CallState : u32 {
    CALL_CONNECTED = 0,
    CALL_CONNECTING = 1,
    CALL_ENDED = 3,
};

// One chat: the user, the connection to him if there is one, and the state.
// Thread: any; lock_ guards the members.
// Owned by the CallList, and lives until the process ends. Borrows: the Peer, counted.
class Call {
  public:
    Call(const PeerNeeds& needs, const UserMeta& user);

    // Tries once to reach the user. The call must be in the list already, so that it doesn't miss an event.
    void connect(const UserMeta& user) EXCLUDES(lock_);
    bool send(const char* text) EXCLUDES(lock_);  // true if the text was sent
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
