// ClientApp: starts and stops the engine, and holds the shared files and the last search.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "i4min/memory/LL.h"
#include "i4min/memory/relaxed.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/FileList.h"
#include "peer/PeerNeeds.h"
#include "transport/STSocketPool.h"

class CoreUIInterface;
class DLPool;
class FilterList;
class FriendList;
class HashThread;
class ImporterList;
class PartialList;
class PeerDoor;
class RemoteQueueList;
class Search;
class ServerPool;
class ShareList;
class UploadPool;
class Worker;
struct Transport;
struct i4_proxy_settings;

// References to what ClientApp starts, stops and uses.
// Thread: any. Must outlive it.
struct ClientNeeds {
    Core& core;
    Transport& transport;
    CoreUIInterface& ui;
    const PeerNeeds& peers;
    RemoteQueueList& queues;
    FriendList& friends;
    UploadPool& uploads;
    ServerPool& servers;
    DLPool& downloads;
    HashThread& hasher;
};

// Starts the engine's threads in init() and stops them in a fixed order in shutdown(). Provides the shared
// files, searches and connections to users in between.
// Thread: init() and shutdown() on the entry thread, once each; load() and publish() on MessageQ's; saveAll()
// on MessageQ's and in shutdown(); the rest on any.
// Owns: the lists; through `known`, every record that is or was shared; the socket pool and the workers.
class ClientApp {
  public:
    explicit ClientApp(const ClientNeeds& needs);
    virtual ~ClientApp();
    ClientApp(const ClientApp&) = delete;
    ClientApp& operator=(const ClientApp&) = delete;

    void init();
    void load();
    void saveAll();
    void shutdown();
    // Applies a proxy setting (null for none). Opens the client's listener unless a proxy is used.
    void listen(const i4_proxy_settings* proxy, i32 timeoutMs);

    void publish();                      // publishes the files that the server hasn't been offered yet
    void addSharedFile(FileMeta* file);  // a hashed or completed file; ownership passes to `known`
    // Changes a record of `known`, which may be in `shared` too, under the locks of both lists.
    void changeFile(FileMeta* file, const std::function<void(FileMeta&)>& change);
    void clearPublished();
    void setSharedDirs(const std::vector<i4_string>& dirs);
    void getSharedDirs(std::vector<i4_string>& out) const;
    void findCollections(FileList& out);  // copies the shared files of type "Col"

    void startSearch(Ref<Search> search);
    bool extendSearch();  // false where there was no search yet
    void gotResult(std::unique_ptr<FileMeta> file);
    void gotResults(FileList* list, bool more);  // ownership passes, of the records too

    // Reaches a user; with peerThere, `out` is the connection, and the user has said hello or answered ours.
    ConnectResult connectToUser(const UserMeta& user, Ref<Peer>& out);

    FilterList& filter() { return *filter_; }
    ShareList& shareDirs() { return *shareDirs_; }
    PartialList& partials() { return *partials_; }
    ImporterList& importers() { return *importers_; }

    FileList known{LockRank::knownFiles};    // every file that was ever hashed
    FileList shared{LockRank::sharedFiles};  // the files currently shared
    FileList published;                      // copies of what was published to the current server
    STSocketPool socketPool;

  private:
    void startWorkers();
    bool isSelf(const UserMeta& user) const;
    Ref<Peer> findPeer(const UserMeta& user);  // a connection to that user; empty where there is none

    const ClientNeeds needs_;
    std::vector<std::unique_ptr<Worker>> workers_;
    i4_mutex searchLock_{LockRank::leaf};
    Ref<Search> currentSearch_ GUARDED_BY(searchLock_);
    std::unique_ptr<FilterList> filter_;
    std::unique_ptr<ShareList> shareDirs_;
    std::unique_ptr<PartialList> partials_;
    std::unique_ptr<ImporterList> importers_;
    Ref<PeerDoor> door_;
    Relaxed<u8> loaded_;  // load() has read the lists; until then saving would overwrite them with empty ones
};
