// What the peers' room needs from outside, and whom it tells.
#pragma once

#include <vector>

#include "core/Core.h"
#include "i4min/memory/LLsafe.h"
#include "i4min/memory/relaxed.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/BoolArray.h"
#include "meta/FileList.h"
#include "meta/MD4Hash.h"

class Call;
class Peer;
class Upload;
class UploadSlot;
class UserMeta;
class i4_ram_file_class;

// The events of peers that a user interface shows. Thread: any.
class PeerUI {
  public:
    virtual void uploadAdded(Upload* upload) = 0;
    virtual void uploadRemoved(Upload* upload) = 0;
    virtual void slotAdded(UploadSlot* slot, const char* name) = 0;
    virtual void slotRemoved(UploadSlot* slot) = 0;
    virtual void friendsChanged() = 0;
    virtual void friendFiles() = 0;
    virtual void callMessage(Call* call, const char* text) = 0;
    virtual void callOpened(Call* call) = 0;

  protected:
    ~PeerUI() = default;
};

// What a peer says, and what becomes of its connection. Thread: the socket pool's; connectFailed() a
// worker's.
class PeerListener {
  public:
    // How we have come to know who is on the other side, or who it is now.
    enum class Met { hello, helloAnswer, newIdentity };
    virtual void met(Peer& peer, Met how) = 0;
    virtual void gone(Peer& peer) = 0;
    virtual void connectFailed(u32 ip, u16 port) = 0;

    // To one who fetches from it.
    virtual void gotFileData(Peer& peer, const MD4Hash& file, i4_ram_file_class& stream) = 0;
    // An empty array says that the peer has all parts.
    virtual void gotFileStatus(Peer& peer, const MD4Hash& file, const BoolArray& parts) = 0;
    virtual void gotFileName(Peer& peer, const MD4Hash& file, i4_file& stream) = 0;
    virtual void gotHashSet(const MD4Hash& file, i4_file& stream) = 0;
    virtual void noSuchFile(Peer& peer, const MD4Hash& file) = 0;
    virtual void slotGranted(Peer& peer) = 0;
    virtual void slotEnded(Peer& peer) = 0;
    // To one who has what it fetches.
    virtual void gotSlotRequest(Peer& peer) = 0;
    virtual void gotPartRequest(Peer& peer, i4_file& stream) = 0;
    virtual void uploadStopped(Peer& peer, const MD4Hash& file) = 0;
    virtual void slotReleased(Peer& peer) = 0;
    // To a friend, or one it calls.
    virtual bool awaitsFiles(Peer& peer) = 0;
    virtual void gotSharedFiles(Peer& peer, OwnedList<FileList> list) = 0;
    virtual bool gotChatMessage(const UserMeta& user, const char* text) = 0;  // false where it is refused
    virtual void chatRefused(const UserMeta& user) = 0;

  protected:
    ~PeerListener() = default;
};

// How a way to a user ended, or goes on.
enum class ConnectResult {
    peerThere = 0,         // a connection is there
    connecting = 1,        // one is under way
    neitherReachable = 2,  // both sides are firewalled
    impossible = 3,
    tooManyConnections = 4,
};

// The way to other users. Thread: any.
class Reach {
  public:
    // With peerThere, `out` is the connection.
    // False where one more connection would take the last place.
    virtual bool mayConnect() = 0;
    virtual ConnectResult connectToUser(const UserMeta& user, Ref<Peer>& out) = 0;

  protected:
    ~Reach() = default;
};

// A file on its way in, as those see it who get its parts from us. Thread: any.
class PartReader : public RefCounter {
  public:
    // `moved` once the file is whole and lies in its final path.
    enum class Read { ok = 0, moved = 1, gone = 2, unavailable = 3 };
    virtual Read readData(u8* buffer, u32 start, u32 end) = 0;
    virtual i4_string finalPath() const = 0;
    virtual i4_string getName() const = 0;
};

// What is told of a shared file.
struct SharedFile {
    i4_string name{nullptr};
    i4_string path{nullptr};  // null for a file that is still on its way in
    std::vector<MD4Hash> partHashes;
};

// The files that we share. Thread: any.
class SharedFiles {
  public:
    virtual bool find(const MD4Hash& hash, SharedFile& out) = 0;
    virtual u32 listBytes() = 0;  // of the list's network form
    virtual void writeList(i4_file& stream) = 0;
    // Of a file on its way in: which parts may be told of. Untouched where there is none.
    virtual void partsDone(const MD4Hash& hash, BoolArray& out) = 0;
    // One, for the user who asks, who has parts of it himself or will have. Empty where there is none.
    virtual Ref<PartReader> partsFor(const MD4Hash& hash, const UserMeta& asker) = 0;

  protected:
    ~SharedFiles() = default;
};

// Counts one connection that came in and whose other side hasn't said hello, as long as it exists.
class CountedStranger {
  public:
    explicit CountedStranger(Relaxed<i32>& count) : count_(count) { count_.add(1); }
    CountedStranger(const CountedStranger&) = delete;
    CountedStranger& operator=(const CountedStranger&) = delete;
    ~CountedStranger() { count_.add(-1); }

  private:
    Relaxed<i32>& count_;
};

// Outlives the room.
struct PeerNeeds {
    Core& core;
    PeerUI& ui;
    PeerListener& listener;
    Reach& reach;
    SharedFiles& files;
    // The live connections to other clients. An entry is valid while the lock is held; whoever keeps it
    // longer takes a reference under the lock.
    LLsafe<Peer>& peers;
    // Connections that came in and haven't said hello. They take none of the places of maxCon.
    Relaxed<i32>& strangers;
};
