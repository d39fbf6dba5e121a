// FriendList, the saved list of the users whom the user knows.
#pragma once

#include <memory>

#include "meta/FileList.h"
#include "meta/UserList.h"

class Peer;
struct PeerNeeds;

// UserMeta::friendState of a friend.
enum FriendState : u32 {
    FRIEND_NOT_CONNECTED = 0,
    FRIEND_WAITING = 1,
    FRIEND_CONNECTED = 2,
    FRIEND_UNREACHABLE = 3,
};

// friend.met has its records. Thread: any.
// Owns: its records and the files that a friend told.
class FriendList : public UserList {
  public:
    explicit FriendList(const PeerNeeds& needs) : needs_(needs) {}
    ~FriendList() override;

    bool add(u32 ip, u16 port);  // false for an ip of 0
    void addFriend(const UserMeta& user);
    void remove(const UserMeta& user);
    void askFiles(const UserMeta* user);  // message 19; null waits for nobody's any more
    void peerConnected(Peer& peer);
    void peerGone(Peer& peer);
    void gotFiles(Peer& peer, OwnedList<FileList> list);
    bool awaitsFiles(const Peer& peer);  // whether this peer was asked for its files
    bool isFriend(const MD4Hash& user);  // false for a user whose hash isn't known
    // The shared files of the friend who answered last.
    FileList& getFiles() { return files_; }

  private:
    void askPeer(Peer& peer, const char* name);
    UserMeta* findFriend(const UserMeta& user) REQUIRES(this);
    void setState(const UserMeta& user, u32 state) EXCLUDES(this);
    bool isAsked(const UserMeta& user) const REQUIRES(this) { return asked_ && asked_->sameUser(&user); }

    const PeerNeeds& needs_;
    FileList files_;
    std::unique_ptr<UserMeta> asked_ GUARDED_BY(this);  // whose list is awaited, null if nobody's
};
