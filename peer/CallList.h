// CallList: all chats.
#pragma once

#include <vector>

#include "i4min/memory/LLsafe.h"
#include "peer/Call.h"

class FriendList;

// Finds or opens a user's Call and forwards the events of peers to the calls.
// Thread: any.
// Owns: its calls, until it is destroyed.
class CallList {
  public:
    CallList(const PeerNeeds& needs, FriendList& friends) : needs_(needs), friends_(friends) {}
    ~CallList();
    Call* find(const UserMeta& user);  // by the user hash; null if there is none
    Call* open(const UserMeta& user);  // finds the call, or makes it; message 21
    // Returns false if the setting pmAllow forbids this user to open a call.
    bool gotMessage(const UserMeta& user, const char* text);
    void peerConnected(Peer& peer);
    void peerGone(Peer& peer);
    void refused(const UserMeta& user);

  private:
    Call* findUnsafe(const UserMeta& user) REQUIRES(list_);
    std::vector<Call*> calls();

    const PeerNeeds& needs_;
    FriendList& friends_;
    // Unranked: findUnsafe() takes the lock of each call while it holds this one.
    LLsafe<Call> list_{LockRank::none};
};
