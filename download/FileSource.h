// FileSource, one remote client that is believed to hold one file.
#pragma once

#include <memory>

#include "i4min/string/string.h"
#include "meta/BoolArray.h"
#include "meta/UserMeta.h"

class DownloadBody;
class FileSourceState;
class Peer;

// Thread: under its Download's lock. Owned by DLS_Downloading.
// Owns: its state and its array of parts.    Borrows: its Download.
class FileSource {
  public:
    FileSource(const UserMeta& user, DownloadBody& download);
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;
    ~FileSource();

    FileSourceState& state() { return *state_; }
    // Destroys the old state, then enters the new one.
    void setState(std::unique_ptr<FileSourceState> state);
    bool sameUser(const UserMeta& user) const;
    bool isPeer(const Peer& peer) const;
    // Which parts the source has, kept in step with the download's progress.
    void setParts(const BoolArray& parts);
    void takeAllParts();  // an array of the file's part count, all set
    void clearParts();
    const BoolArray* parts() const { return parts_.get(); }  // null while unknown
    // A connection to this source stands.
    void gotPeer(Peer& peer);
    void gotName(const char* name, const Peer& peer);
    // False, and nothing is asked, for a file of at most one part's bytes.
    bool askFileStatus(Peer& peer) const;

    UserMeta user;   // renewed from the Peer at connection
    i4_string name;  // under which this source knows the file, 255 bytes of it; empty until it has said so
    DownloadBody& download;

  private:
    std::unique_ptr<FileSourceState> state_;
    std::unique_ptr<BoolArray> parts_;
};
