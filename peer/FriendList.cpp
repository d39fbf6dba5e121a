#include "peer/FriendList.h"

#include "peer/Peer.h"
#include "peer/PeerNeeds.h"

FriendList::~FriendList() {
    deleteAll();
    files_.deleteAll();
}

void FriendList::askPeer(Peer& peer, const char* name) {
    needs_.core.log.printLine("%s %s %s", needs_.core.strings.get(STRINGS_ASKING), orEmpty(name),
                              needs_.core.strings.get(STRINGS_FOR_FILE_LIST));
    peer.askSharedFiles();
}

UserMeta* FriendList::findFriend(const UserMeta& user) {
    for (Cursor c; UserMeta* known = next(c);) {
        if (known->sameUser(&user)) return known;
    }
    return nullptr;
}

bool FriendList::add(u32 ip, u16 port) {
    if (ip == 0) return false;
    UserMeta user;
    user.id = ip;
    user.port = port;
    addFriend(user);
    return true;
}

void FriendList::addFriend(const UserMeta& user) {
    {
        const i4_guard guard(*this);
        if (findFriend(user)) return;
        addUnsafe(copyOf(user).release());
    }
    needs_.ui.friendsChanged();
}

void FriendList::remove(const UserMeta& user) {
    {
        const i4_guard guard(*this);
        const std::unique_ptr<UserMeta> known(findFriend(user));
        if (!known) return;
        removeUnsafe(known.get());
    }
    needs_.ui.friendsChanged();
}

void FriendList::setState(const UserMeta& user, u32 state) {
    const i4_guard guard(*this);
    if (UserMeta* known = findFriend(user)) known->friendState = state;
}

void FriendList::askFiles(const UserMeta* wanted) {
    {
        const i4_guard guard(*this);
        asked_.reset();
        if (!wanted) return;
        asked_ = copyOf(*wanted);
    }
    const UserMeta& user = *wanted;
    if (user.id == 0) {
        needs_.core.log.printLine("Need to look for user. Not yet implemented.");
        return;
    }
    Ref<Peer> peer;
    switch (needs_.reach.connectToUser(user, peer)) {
        case ConnectResult::peerThere:
            askPeer(*peer, peer->userName().c_str());
            break;
        case ConnectResult::connecting:
            setState(user, FRIEND_WAITING);
            needs_.core.log.printLine("%s", needs_.core.strings.get(STRINGS_WAITING_CONNECTION));
            break;
        case ConnectResult::neitherReachable:
            setState(user, FRIEND_UNREACHABLE);
            needs_.core.log.printLine("%s", needs_.core.strings.get(STRINGS_CANT_CONNECT_USER));
            break;
        case ConnectResult::impossible:
        case ConnectResult::tooManyConnections:
            break;
    }
}

void FriendList::peerConnected(Peer& peer) {
    UserMeta user;
    peer.copyUser(user);
    bool asks = false;
    {
        const i4_guard guard(*this);
        UserMeta* known = findFriend(user);
        if (!known) return;
        asks = isAsked(*known) || isAsked(user);
        if (asks) asked_->copyFrom(&user);
        indexChange(known, [&] { known->copyFrom(&user); });
        known->friendState = FRIEND_CONNECTED;
    }
    if (asks) askPeer(peer, user.getName());
    needs_.ui.friendsChanged();
}

void FriendList::peerGone(Peer& peer) {
    UserMeta user;
    peer.copyUser(user);
    {
        const i4_guard guard(*this);
        UserMeta* known = findFriend(user);
        if (!known) return;
        known->friendState = FRIEND_NOT_CONNECTED;
    }
    needs_.ui.friendsChanged();
}

bool FriendList::awaitsFiles(const Peer& peer) {
    UserMeta user;
    peer.copyUser(user);
    const i4_guard guard(*this);
    return isAsked(user);
}

bool FriendList::isFriend(const MD4Hash& user) {
    const i4_guard guard(*this);
    return !user.isZero() && findUnsafe(user);
}

void FriendList::gotFiles(Peer& peer, OwnedList<FileList> list) {
    UserMeta user;
    peer.copyUser(user);
    bool expected = false;
    {
        const i4_guard guard(*this);
        expected = isAsked(user);
        if (expected) asked_.reset();
    }
    if (!expected) return;
    files_.deleteAll();
    files_.addAll(*list);
    list->clear();
    needs_.ui.friendFiles();
}
