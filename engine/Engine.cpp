// Connects the modules of an engine with each other.
#include "engine/Engine.h"

#include "import/ImporterList.h"

Engine::Engine(Host& onHost, const char* workDir, CoreUIInterface& speakThrough)
    : host(onHost), ui(onHost.clock, speakThrough), preferences(onHost, ui, stringTable, workDir) {
    preferences.onClientIdChanged = [this] {
        remoteQueueList.clear();
        dlPool.idChanged();
    };
    preferences.hasDownloads = [this] { return dlPool.count() > 0; };
}

Engine::~Engine() {
    verifier.shutdown();  // the same
    messageQ.stop();
    messageQ.clear();  // the messages refer to downloads and peers, which need members destroyed first
}

// ServerEvents.

void Engine::loggedOn() {
    const i4_guard guard(peers);
    for (LL<Peer>::Cursor c; Peer* peer = peers.next(c);) peer->sendIdentity();
}

void Engine::serverGone() { clientApp.clearPublished(); }
bool Engine::wantsSources(const MD4Hash& file) { return dlPool.find(file).get() != nullptr; }

void Engine::foundSource(const MD4Hash& file, const UserMeta& user) {
    if (const Ref<Download> download = dlPool.find(file)) download->addSource(user);
}

void Engine::callbackAsked(const UserMeta& user) {
    Ref<Peer> peer;
    if (connectToUser(user, peer) == ConnectResult::peerThere) peer->sendIdentity();
}

void Engine::callbackFailed(u32 serverIp, u32 clientId) {
    dlPool.on(CallbackFailed{serverIp, clientId});
    uploadPool.callbackFailed(serverIp, clientId);
}

void Engine::gotResult(std::unique_ptr<FileMeta> file) { clientApp.gotResult(std::move(file)); }
void Engine::gotResults(FileList* list, bool more) { clientApp.gotResults(list, more); }
void Engine::gotUserList(UserList* list) { ui.gotUserList(list); }

// PeerListener.

void Engine::met(Peer& peer, Met how) {
    dlPool.on(peer, PeerConnected{});
    friendList.peerConnected(peer);
    if (how != Met::hello) callList.peerConnected(peer);
    if (how != Met::newIdentity) uploadPool.gotCall(peer);
}

void Engine::gone(Peer& peer) {
    uploadPool.peerGone(peer);
    dlPool.on(peer, PeerGone{});
    friendList.peerGone(peer);
    callList.peerGone(peer);
}

void Engine::connectFailed(u32 ip, u16 port) {
    dlPool.on(ConnectFailed{ip, port});
    uploadPool.connectFailed(ip, port);
}

void Engine::gotFileData(Peer& peer, const MD4Hash& file, i4_ram_file_class& stream) {
    dlPool.on(file, peer, GotData{stream});
}

void Engine::gotFileStatus(Peer& peer, const MD4Hash& file, const BoolArray& parts) {
    const Ref<Download> download = dlPool.find(file);
    if (!download) return;
    if (parts.size() > 0) {
        download->on(peer, GotFileStatus{parts});
        return;
    }
    BoolArray all(static_cast<i32>(download->partialRef()->getPartCount()));
    all.setAll(true);
    download->on(peer, GotFileStatus{all});
}

void Engine::gotFileName(Peer& peer, const MD4Hash& file, i4_file& stream) {
    if (const Ref<Download> download = dlPool.find(file)) {
        const i4_string name(stream);
        download->on(peer, GotFileName{name.c_str()});
    }
}

void Engine::gotHashSet(const MD4Hash& file, i4_file& stream) {
    if (const Ref<Download> download = dlPool.find(file)) download->gotHashSet(stream);
}

void Engine::noSuchFile(Peer& peer, const MD4Hash& file) { dlPool.on(file, peer, NoSuchFile{}); }

void Engine::slotGranted(Peer& peer) {
    if (peer.isKnown()) dlPool.slotGranted(peer);
}

void Engine::slotEnded(Peer& peer) { dlPool.on(peer, SlotEnded{}); }

void Engine::gotSlotRequest(Peer& peer) {
    if (peer.isKnown()) uploadPool.gotSlotRequest(peer);
}

void Engine::gotPartRequest(Peer& peer, i4_file& stream) { uploadPool.gotPartRequest(stream, peer); }
void Engine::uploadStopped(Peer& peer, const MD4Hash& file) { uploadPool.stopUpload(file, peer); }
void Engine::slotReleased(Peer& peer) { uploadPool.endAllOf(peer); }
bool Engine::awaitsFiles(Peer& peer) { return friendList.awaitsFiles(peer); }

void Engine::gotSharedFiles(Peer& peer, OwnedList<FileList> list) {
    friendList.gotFiles(peer, std::move(list));
}

bool Engine::gotChatMessage(const UserMeta& user, const char* text) {
    return callList.gotMessage(user, text);
}
void Engine::chatRefused(const UserMeta& user) { callList.refused(user); }

// Reach.

bool Engine::mayConnect() { return clientApp.socketPool.count - strangers + 1 < preferences.maxCon; }

ConnectResult Engine::connectToUser(const UserMeta& user, Ref<Peer>& out) {
    return clientApp.connectToUser(user, out);
}

// SharedFiles.

bool Engine::find(const MD4Hash& hash, SharedFile& out) {
    FileList& files = clientApp.shared;
    const i4_guard guard(files);
    const FileMeta* file = files.findUnsafe(hash);
    if (!file) return false;
    out = {file->getName(), file->path, file->partHashes};
    return true;
}

u32 Engine::listBytes() { return clientApp.shared.byteSize(); }
// A record that can't be written is reported by the list.
void Engine::writeList(i4_file& stream) { static_cast<void>(clientApp.shared.toNetwork(stream)); }

void Engine::partsDone(const MD4Hash& hash, BoolArray& out) {
    if (const Ref<Download> download = dlPool.find(hash)) download->partialRef()->copyPartsDone(out);
}

// A user who requests a file that we are downloading has parts of it or will have, and becomes a source.
Ref<PartReader> Engine::partsFor(const MD4Hash& hash, const UserMeta& asker) {
    const Ref<Download> download = dlPool.find(hash);
    if (!download) return {};
    download->addSource(asker);
    return Ref<PartReader>(download->partialRef().get());
}

// HashDuties.

FileList& Engine::known() { return clientApp.known; }
FileList& Engine::shared() { return clientApp.shared; }
ShareList& Engine::shareDirs() { return clientApp.shareDirs(); }
void Engine::addSharedFile(FileMeta* file) { clientApp.addSharedFile(file); }

void Engine::changeFile(FileMeta* file, const std::function<void(FileMeta&)>& change) {
    clientApp.changeFile(file, change);
}

bool Engine::importFile(FileMeta& file, const char* path, const char* name) {
    return clientApp.importers().importFile(file, host.disk, ui, path, name);
}

void Engine::verify(const Ref<Download>& download, const GiveUp& giveUp) { download->verify(giveUp); }
void Engine::publish() { messageQ.postOnce(MESSAGE_PUBLISH); }
