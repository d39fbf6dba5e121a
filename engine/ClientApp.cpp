// Life cycle: start, load, save, shutdown. ClientApp_services.cpp has the operations used at run time.
#include "engine/ClientApp.h"

#include "download/DLPool.h"
#include "download/HashThread.h"
#include "download/PartialList.h"
#include "download/ShareList.h"
#include "engine/CoreUIInterface.h"
#include "engine/FilterList.h"
#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/network/proxy.h"
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

ClientApp::ClientApp(const ClientNeeds& needs)
    : socketPool(needs.transport),
      needs_(needs),
      filter_(std::make_unique<FilterList>()),
      shareDirs_(std::make_unique<ShareList>(needs.core)),
      partials_(std::make_unique<PartialList>(needs.core)),
      importers_(std::make_unique<ImporterList>()) {}

ClientApp::~ClientApp() {
    shared.clear();
    known.deleteAll();
    published.deleteAll();
}

void ClientApp::init() {
    needs_.core.preferences.load();
    const i4_proxy_settings proxy = needs_.core.preferences.proxy();
    needs_.core.host.network.setProxy(&proxy);
    Disk& disk = needs_.core.host.disk;
    disk.makeDirectory(needs_.core.preferences.incomingDir().c_str());
    disk.makeDirectory(needs_.core.preferences.tempDir().c_str());
    needs_.servers.load(needs_.core.preferences.serverPath.c_str());
    // Loaded before the first command runs, which may add a directory.
    shareDirs_->load();
    socketPool.start();
    socketPool.setPriority(3);
    needs_.servers.setSocketPool(socketPool);
    startWorkers();
    listen(&proxy, doorTimeout);
    needs_.downloads.start();
    needs_.downloads.setPriority(3);
    needs_.core.messages.start();
    needs_.core.messages.setPriority(3);
}

void ClientApp::startWorkers() {
    for (i32 i = 0; i < needs_.core.preferences.workerCount; ++i) {
        auto worker = std::make_unique<Worker>(socketPool);
        worker->start();
        worker->setPriority(3);
        workers_.push_back(std::move(worker));
    }
}

void ClientApp::listen(const i4_proxy_settings* proxy, i32 timeoutMs) {
    needs_.core.host.network.setProxy(proxy);
    if (proxy && proxy->inForce()) return;
    if (!door_) {
        door_ = makeRef<PeerDoor>(socketPool, needs_.peers,
                                  static_cast<u16>(needs_.core.preferences.doorPort.get()));
    }
    door_->listen(timeoutMs);
}

void ClientApp::load() {
    filter_->load(needs_.core.host.disk, needs_.core.preferences.filterPath.c_str());
    needs_.core.files.load(needs_.friends, needs_.core.preferences.friendPath.c_str());
    needs_.core.files.load(known, needs_.core.preferences.knownPath.c_str());
    // Each run adds a record for a resumed download; keep the last one.
    known.deleteRepeated();
    loaded_ = 1;
    partials_->loadFromDir(needs_.core.preferences.tempDir().c_str());
    for (const auto& record : partials_->takeAll()) {
        if (Ref<Download> download = needs_.downloads.loadDownload(*record)) {
            needs_.hasher.addPartial(std::move(download));
        }
    }
    std::vector<i4_string> dirs;
    shareDirs_->copyTo(dirs);
    needs_.hasher.hashDirs(std::move(dirs));
    needs_.ui.loaded();
}

void ClientApp::saveAll() {
    if (loaded_) {
        needs_.core.files.save(needs_.friends, needs_.core.preferences.friendPath.c_str());
        needs_.core.files.save(known, needs_.core.preferences.knownPath.c_str());
    }
    needs_.core.files.save(needs_.servers.servers(), needs_.core.preferences.serverPath.c_str());
    partials_->saveToDir(needs_.core.preferences.tempDir().c_str());
    needs_.core.preferences.save();
    shareDirs_->save();
}

void ClientApp::shutdown() {
    for (const auto& worker : workers_) worker->stop();
    socketPool.stop();
    needs_.hasher.stop();
    needs_.core.messages.stop();
    // A message handled in the meantime may have started the hash thread again.
    needs_.hasher.stop();
    partials_->clear();
    needs_.downloads.stop();
    needs_.downloads.stopAll(*partials_);
    needs_.uploads.clear();
    saveAll();
    socketPool.deleteConnections();
    door_.reset();
}
