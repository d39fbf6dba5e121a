// CallList, the chats.
#pragma once

#include <vector>

#include "i4min/memory/LLsafe.h"
#include "peer/Call.h"

class FriendList;

// Thread: any. Owns its calls, which stay for the life of the process.
class CallList {
  public:
    CallList(const PeerNeeds& needs, FriendList& friends) : needs_(needs), friends_(friends) {}
    ~CallList();
    Call* find(const UserMeta& user);  // by the user hash, null where there is none
    Call* open(const UserMeta& user);  // found, or made. Message 21
    // False if the setting pmAllow keeps this user from opening a call.
    bool gotMessage(const UserMeta& user, const char* text);
    void peerConnected(Peer& peer);
    void peerGone(Peer& peer);
    void refused(const UserMeta& user);

  private:
    Call* findUnsafe(const UserMeta& user) REQUIRES(list_);
    std::vector<Call*> calls();

    const PeerNeeds& needs_;
    FriendList& friends_;
    // A walk takes the locks of the calls, whose rank is above.
    LLsafe<Call> list_{LockRank::none};
};
