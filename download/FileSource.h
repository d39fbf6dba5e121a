// FileSource, a user who may have a file that is being downloaded.
#pragma once

#include <memory>
#include <utility>

#include "download/FileSourceState.h"
#include "i4min/string/string.h"
#include "meta/UserMeta.h"

class DownloadBody;

// Thread: under the Download's lock. Owned by DLS_Downloading.
// Owns: its state and its parts; a reference on the peer with which it talks.
class FileSource {
  public:
    FileSource(const UserMeta& user, DownloadBody& download);
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;
    ~FileSource();

    FileSourceState& state() { return *state_; }
    // Destroys the old state, makes the new one and enters it. The arguments may not belong to the old state.
    template <class State, class... Arguments>
    void become(Arguments&... arguments) {
        state_.reset();
        state_ = std::make_unique<State>(*this, arguments...);
        state_->enter();
    }
    // False: take it off the list and destroy it.
    bool tick(i32 elapsedMs);
    bool sameUser(const UserMeta& user) const;

    // With whom it talks in the present state; empty where it talks to nobody.
    const Ref<Peer>& peer() const { return peer_; }
    void talkWith(Ref<Peer> peer);
    // A connection to this source stands.
    void gotPeer(Peer& peer);
    void gotName(const char* name);
    // Bytes that it wasn't asked for.
    void gotUnasked(u32 bytes);
    // False, and nothing is asked, for a file of at most one part's bytes.
    bool askFileStatus(Peer& peer) const;

    // Which parts the source has, kept in step with the download's progress.
    void setParts(const BoolArray& parts);
    void takeAllParts();  // an array of the file's part count, all set
    void clearParts();
    const BoolArray* parts() const { return parts_.get(); }  // null while unknown

    // Its account, noAccount for none; openAccount() makes one.
    u32 account() const { return account_; }
    u32 openAccount();
    // It gave a part, or some of one, that failed, and nothing since that passed.
    bool isSuspect() const;
    Asker asker();

    UserMeta user;   // renewed from the Peer at connection
    i4_string name;  // under which this source knows the file, 255 bytes of it; empty until it has said so
    DownloadBody& download;

  private:
    std::unique_ptr<FileSourceState> state_;
    std::unique_ptr<BoolArray> parts_;
    Ref<Peer> peer_;
    u32 account_ = noAccount;
};
