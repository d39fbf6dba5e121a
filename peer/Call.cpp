#include "peer/Call.h"

#include "peer/Peer.h"
#include "peer/PeerNeeds.h"

Call::Call(const PeerNeeds& needs, const UserMeta& user) : needs_(needs) { user_.copyFrom(&user); }

void Call::connect(const UserMeta& user) {
    Ref<Peer> peer;
    const ConnectResult result = needs_.reach.connectToUser(user, peer);
    i4_lock guard(lock_);
    if (state_ != CALL_CONNECTING || result == ConnectResult::connecting) return;
    if (peer && !peer->isDead()) {
        peer_ = std::move(peer);
        state_ = CALL_CONNECTED;
    } else {
        state_ = CALL_ENDED;
    }
}

// Like UserMeta::sameUser, but two unknown hashes count as equal.
bool Call::isUser(const UserMeta& other) const { return user_.sameUser(&other) || user_.hash == other.hash; }

bool Call::send(const char* text) {
    i4_lock guard(lock_);
    return state_ == CALL_CONNECTED && peer_ && !peer_->isDead() && peer_->sendMessage(text);
}

void Call::copyUser(UserMeta& out) const {
    i4_lock guard(lock_);
    out.copyFrom(&user_);
}

MD4Hash Call::userHash() const {
    i4_lock guard(lock_);
    return user_.hash;
}

void Call::peerConnected(Peer& peer) {
    UserMeta other;
    peer.copyUser(other);
    {
        i4_lock guard(lock_);
        if (state_ != CALL_CONNECTING || !isUser(other)) return;
        state_ = CALL_CONNECTED;
        peer_ = Ref<Peer>(&peer);
        user_.copyFrom(&other);
    }
    needs_.ui.callOpened(this);
}

void Call::peerGone(Peer& peer) {
    {
        i4_lock guard(lock_);
        if (peer_.get() != &peer) return;
        peer_.reset();
        state_ = CALL_ENDED;
    }
    needs_.ui.callMessage(this, "Disconnected.");
    needs_.ui.callOpened(this);
}

void Call::refused(const UserMeta& other) {
    {
        i4_lock guard(lock_);
        if (!isUser(other)) return;
        state_ = CALL_ENDED;
    }
    needs_.ui.callMessage(this, "Is not accepting calls.");
    needs_.ui.callOpened(this);
}
