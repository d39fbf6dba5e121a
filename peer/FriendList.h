// FriendList: the saved list of the user's friends.
#pragma once

#include <memory>

#include "meta/FileList.h"
#include "meta/UserList.h"

class Peer;
struct PeerNeeds;

// The values of UserMeta::friendState.
enum FriendState : u32 {
    FRIEND_NOT_CONNECTED = 0,
    FRIEND_WAITING = 1,
    FRIEND_CONNECTED = 2,
    FRIEND_UNREACHABLE = 3,
};

// Friends are saved in friend.met. The list follows their connections and can fetch a friend's shared files.
// Thread: any.
// Owns: its records, and the file records that a friend sent.
class FriendList : public UserList {
  public:
    explicit FriendList(const PeerNeeds& needs) : needs_(needs) {}
    ~FriendList() override;

    bool add(u32 ip, u16 port);  // false if ip is 0
    void addFriend(const UserMeta& user);
    void remove(const UserMeta& user);
    void askFiles(const UserMeta* user);  // message 19; null cancels the pending request
    void peerConnected(Peer& peer);
    void peerGone(Peer& peer);
    void gotFiles(Peer& peer, OwnedList<FileList> list);
    bool awaitsFiles(const Peer& peer);  // true if this peer was asked for its files
    bool isFriend(const MD4Hash& user);  // false if the hash isn't known
    // The shared files of the friend who answered last.
    FileList& getFiles() { return files_; }

  private:
    void askPeer(Peer& peer, const char* name);
    UserMeta* findFriend(const UserMeta& user) REQUIRES(this);
    void setState(const UserMeta& user, u32 state) EXCLUDES(this);
    bool isAsked(const UserMeta& user) const REQUIRES(this) { return asked_ && asked_->sameUser(&user); }

    const PeerNeeds& needs_;
    FileList files_;
    std::unique_ptr<UserMeta> asked_ GUARDED_BY(this);  // the user whose list is awaited; null if none
};
