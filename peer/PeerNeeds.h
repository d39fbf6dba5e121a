// The interfaces that the `peer` module calls.
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

// Events of peers and uploads that the user interface shows. CoreUIInterface implements it.
// Thread: any. Callers keep ownership of what they pass.
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

// Events of peers that other modules act on: messages, and the end of connections. Engine implements it.
// Thread: the socket pool's; connectFailed() may be called on a worker's.
class PeerListener {
  public:
    // How we learnt the other side's identity, or its new one.
    enum class Met { hello, helloAnswer, newIdentity };
    virtual void met(Peer& peer, Met how) = 0;
    virtual void gone(Peer& peer) = 0;
    virtual void connectFailed(u32 ip, u16 port) = 0;

    // For downloads.
    virtual void gotFileData(Peer& peer, const MD4Hash& file, i4_ram_file_class& stream) = 0;
    // An empty array means that the peer has all parts.
    virtual void gotFileStatus(Peer& peer, const MD4Hash& file, const BoolArray& parts) = 0;
    virtual void gotFileName(Peer& peer, const MD4Hash& file, i4_file& stream) = 0;
    virtual void gotHashSet(const MD4Hash& file, i4_file& stream) = 0;
    virtual void noSuchFile(Peer& peer, const MD4Hash& file) = 0;
    virtual void slotGranted(Peer& peer) = 0;
    virtual void slotEnded(Peer& peer) = 0;
    // For uploads.
    virtual void gotSlotRequest(Peer& peer) = 0;
    virtual void gotPartRequest(Peer& peer, i4_file& stream) = 0;
    virtual void uploadStopped(Peer& peer, const MD4Hash& file) = 0;
    virtual void slotReleased(Peer& peer) = 0;
    // For friends and chats.
    virtual bool awaitsFiles(Peer& peer) = 0;
    virtual void gotSharedFiles(Peer& peer, OwnedList<FileList> list) = 0;
    virtual bool gotChatMessage(const UserMeta& user, const char* text) = 0;  // false if the chat is refused
    virtual void chatRefused(const UserMeta& user) = 0;

  protected:
    ~PeerListener() = default;
};

// The result of an attempt to reach a user.
enum class ConnectResult {
    peerThere = 0,         // a connection exists
    connecting = 1,        // a connection is being made
    neitherReachable = 2,  // both sides are firewalled
    impossible = 3,
    tooManyConnections = 4,
};

// Opens connections to other users. Engine implements it.
// Thread: any.
class Reach {
  public:
    // Returns false if one more connection would take the last free place.
    virtual bool mayConnect() = 0;
    // Sets `out` to the connection if the result is peerThere.
    virtual ConnectResult connectToUser(const UserMeta& user, Ref<Peer>& out) = 0;

  protected:
    ~Reach() = default;
};

// The finished parts of a file that is being downloaded, as uploads read them. PartialFile implements it.
// Thread: any.
class PartReader : public RefCounter {
  public:
    // `moved`: the file is complete and is at its final path.
    enum class Read { ok = 0, moved = 1, gone = 2, unavailable = 3 };
    virtual Read readData(u8* buffer, u32 start, u32 end) = 0;
    virtual i4_string finalPath() const = 0;
    virtual i4_string getName() const = 0;
};

// What other clients may learn about a shared file.
// A plain value: a copy of the file's record.
struct SharedFile {
    i4_string name{nullptr};
    i4_string path{nullptr};  // null while the file is being downloaded
    std::vector<MD4Hash> partHashes;
};

// The files that we share, as answers to peers need them. Engine implements it.
// Thread: any.
class SharedFiles {
  public:
    virtual bool find(const MD4Hash& hash, SharedFile& out) = 0;
    virtual u32 listBytes() = 0;  // the size of the list as it is sent
    virtual void writeList(i4_file& stream) = 0;
    // Sets `out` to the parts that may be offered of a file being downloaded; leaves it if there is none.
    virtual void partsDone(const MD4Hash& hash, BoolArray& out) = 0;
    // The parts of a file being downloaded; empty if there is none. Adds `asker` to its sources.
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
    // The live connections to other clients. A pointer from the list is valid while its lock is held; take a
    // reference under the lock to keep it longer.
    LLsafe<Peer>& peers;
    // Connections that came in and haven't said hello. They take none of the places of maxCon.
    Relaxed<i32>& strangers;
};
