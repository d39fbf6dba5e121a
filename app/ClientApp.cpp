// The life cycle: start, load, save, shut-down. ClientApp_services.cpp has what the subsystems ask of it at
// run time.
#include "app/ClientApp.h"

#include "app/FilterList.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "app/UIInterface.h"
#include "download/DLPool.h"
#include "download/HashThread.h"
#include "download/PartialList.h"
#include "download/ShareList.h"
#include "i4min/file/filesystem.h"
#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/network/proxy.h"
#include "i4min/threads/linux/linux_threads.h"
#include "import/ImporterList.h"
#include "peer/FriendList.h"
#include "peer/Peer.h"
#include "peer/PeerDoor.h"
#include "peer/RemoteQueueList.h"
#include "peer/UploadPool.h"
#include "server/Search.h"
#include "server/ServerPool.h"
#include "transport/Worker.h"

namespace {

constexpr i32 doorTimeout = 500;  // ms

}  // namespace

ClientApp::ClientApp()
    : filter_(std::make_unique<FilterList>()),
      shareDirs_(std::make_unique<ShareList>()),
      partials_(std::make_unique<PartialList>()),
      importers_(std::make_unique<ImporterList>()) {}

ClientApp::~ClientApp() {
    shared.clear();
    known.deleteAll();
    published.deleteAll();
}

void ClientApp::init() {
    preferences.onClientIdChanged = [] {
        remoteQueueList.clear();
        dlPool.idChanged();
    };
    preferences.hasDownloads = [] { return dlPool.count() > 0; };
    preferences.load();
    const i4_proxy_settings proxy = preferences.proxy();
    makeProtocol(&proxy);
    i4_mkdir(preferences.incomingDir().c_str());
    i4_mkdir(preferences.tempDir().c_str());
    serverPool.load(preferences.serverPath.c_str());
    // Before the first command, which may add a directory.
    shareDirs_->load();
    socketPool.start();
    socketPool.setPriority(3);
    serverPool.setSocketPool(&socketPool);
    startWorkers();
    listen(&proxy, doorTimeout);
    dlPool.start();
    dlPool.setPriority(3);
    messageQ.start();
    messageQ.setPriority(3);
}

void ClientApp::startWorkers() {
    for (i32 i = 0; i < preferences.workerCount; ++i) {
        auto worker = std::make_unique<Worker>(socketPool);
        worker->start();
        worker->setPriority(3);
        workers_.push_back(std::move(worker));
    }
}

void ClientApp::listen(const i4_proxy_settings* proxy, i32 timeoutMs) {
    makeProtocol(proxy);
    if (proxy && proxy->inForce()) return;
    if (!door_)
        door_ = Ref<PeerDoor>(new PeerDoor(&socketPool, static_cast<u16>(preferences.doorPort.get())));
    door_->listen(timeoutMs);
}

void ClientApp::load() {
    filter_->load(preferences.filterPath.c_str());
    friendList.loadOrSetAside(preferences.friendPath.c_str());
    known.loadOrSetAside(preferences.knownPath.c_str());
    // A download that is resumed gets a record in each run: the last one counts.
    known.deleteRepeated();
    loaded_ = 1;
    partials_->loadFromDir(preferences.tempDir().c_str());
    partials_->startDownloads();
    std::vector<i4_string> dirs;
    shareDirs_->copyTo(dirs);
    hashThread.hashDirs(std::move(dirs));
    theUI->loaded();
}

void ClientApp::saveAll() {
    if (loaded_) {
        friendList.save(preferences.friendPath.c_str());
        known.save(preferences.knownPath.c_str());
    }
    serverPool.servers().save(preferences.serverPath.c_str());
    partials_->saveToDir(preferences.tempDir().c_str());
    preferences.save();
    shareDirs_->save();
}

void ClientApp::shutdown() {
    for (const auto& worker : workers_) worker->stop();
    socketPool.stop();
    hashThread.stop();
    messageQ.stop();
    // A message that was handled meanwhile may have started it again.
    hashThread.stop();
    partials_->clear();
    dlPool.stop();
    dlPool.stopAll();
    uploadPool.clear();
    saveAll();
    socketPool.deleteConnections();
    door_.reset();
    i4_uninit();
}
