#include "peer/CallList.h"

#include "peer/FriendList.h"
#include "peer/PeerNeeds.h"

namespace {

enum CallsAllowed : i32 { everyone = 0, withCall = 1, friendsAndWithCall = 2 };

// Keeps strangers from filling the memory with calls.
constexpr std::size_t mostCalls = 1000;

}  // namespace

CallList::~CallList() { deleteAll(list_); }

std::vector<Call*> CallList::calls() {
    std::vector<Call*> result;
    const i4_guard guard(list_);
    for (LL<Call>::Cursor c; Call* call = list_.next(c);) result.push_back(call);
    return result;
}

Call* CallList::findUnsafe(const UserMeta& user) {
    return findIn(list_, [&](const Call& call) { return call.userHash() == user.hash; });
}

Call* CallList::find(const UserMeta& user) {
    const i4_guard guard(list_);
    return findUnsafe(user);
}

Call* CallList::open(const UserMeta& user) {
    Call* call = nullptr;
    {
        const i4_guard guard(list_);
        if (Call* known = findUnsafe(user)) return known;
        auto made = std::make_unique<Call>(needs_, user);
        call = made.get();
        list_.addUnsafe(made.release());
    }
    call->connect(user);
    return call;
}

bool CallList::gotMessage(const UserMeta& user, const char* text) {
    Call* known = find(user);
    if (!known) {
        const i32 allowed = needs_.core.preferences.pmAllow;
        if (allowed == withCall) return false;
        if (allowed == friendsAndWithCall && !friends_.isFriend(user.hash)) return false;
        if (list_.count() >= mostCalls) return false;
        known = open(user);
    }
    needs_.ui.callMessage(known, text);
    return true;
}

void CallList::peerConnected(Peer& peer) {
    for (Call* call : calls()) call->peerConnected(peer);
}

void CallList::peerGone(Peer& peer) {
    for (Call* call : calls()) call->peerGone(peer);
}

void CallList::refused(const UserMeta& user) {
    for (Call* call : calls()) call->refused(user);
}
