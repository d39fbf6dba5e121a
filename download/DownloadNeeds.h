// What the downloads' room needs from outside, and whom it tells.
#pragma once

#include <functional>

#include "core/Core.h"
#include "peer/PeerNeeds.h"
#include "server/SourceFinder.h"

class Download;
class FileList;
class FileMeta;
class PartFileNamer;
class RemoteQueueList;
class Verifier;

// The events of downloads and of hashing that a user interface shows. Thread: any.
class DownloadUI {
  public:
    virtual void downloadAdded(Download* download) = 0;
    virtual void downloadRemoved(Download* download) = 0;
    virtual void hashing(const char* name) = 0;

  protected:
    ~DownloadUI() = default;
};

// The records of the files that we have. Thread: any.
class Library {
  public:
    virtual FileList& known() = 0;   // every file that was ever hashed
    virtual FileList& shared() = 0;  // the files that are shared at present
    // A new record, for both lists. Ownership passes to known().
    virtual void addSharedFile(FileMeta* file) = 0;
    // Changes a record that may be in both lists, under both locks.
    virtual void changeFile(FileMeta* file, const std::function<void(FileMeta&)>& change) = 0;

  protected:
    ~Library() = default;
};

// Outlives the room.
struct DownloadNeeds {
    Core& core;
    DownloadUI& ui;
    Reach& reach;
    SourceFinder& servers;
    Library& library;
    PartFileNamer& namer;
    RemoteQueueList& queues;
    LLsafe<Peer>& peers;
    Verifier& verifier;
};
