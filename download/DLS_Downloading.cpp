#include "download/DLS_Downloading.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <utility>

#include "download/DownloadBody.h"
#include "download/FileSourceState.h"

namespace {

constexpr i32 hashSetEvery = 60'000;        // ms
constexpr i32 serverListEvery = 1'200'000;  // ms
constexpr i32 speedSample = 2000;           // ms
constexpr i32 smallFileChunks = 4;          // a file of that many chunks that moves gets no more sources
constexpr f32 smallFileSpeed = 1.0F;        // KB/s
// Servers and strangers name sources without end; and below a thousand, no count of them is taken for that of
// a run which is being fetched.
constexpr u32 mostSources = 900;

}  // namespace

DLS_Downloading::DLS_Downloading(DownloadBody& owner)
    : DownloadState(owner, DL_STATUS_LOOKING), lastTransferred_(owner.partial().transferred()) {
    download.needs.servers.listSourceServers(servers_);
}

DLS_Downloading::~DLS_Downloading() = default;

template <class Operation>
void DLS_Downloading::forEachSource(Operation operation) {
    for (LL<FileSource>::Cursor c; FileSource* source = sources_.next(c);) operation(source->state());
}

template <class Operation>
bool DLS_Downloading::untilTrue(Operation operation) {
    for (LL<FileSource>::Cursor c; FileSource* source = sources_.next(c);) {
        if (operation(source->state())) return true;
    }
    return false;
}

void DLS_Downloading::tick(i32 elapsedMs) {
    // Nothing is missing: an empty file, or one that was whole when the program ended.
    if (download.partial().isComplete()) return finish();
    updateSpeed(elapsedMs);
    LL<FileSource>::Cursor before;
    LL<FileSource>::Cursor at;
    while (FileSource* source = sources_.next(at)) {
        if (source->state().tick(elapsedMs)) {
            before = at;
        } else {
            const std::unique_ptr<FileSource> removed(source);
            at = before = sources_.removeNext(before);
        }
    }
    refreshServers(elapsedMs);
    startMore();
    askHashSet(elapsedMs);
}

void DLS_Downloading::askHashSet(i32 elapsedMs) {
    if (download.partial().partHashesKnown()) return;
    hashTimer_ += elapsedMs;
    if (hashTimer_ <= hashSetEvery) return;
    hashTimer_ = 0;
    untilTrue([](FileSourceState& state) { return state.askHashSet(); });
}

// A window in which a failed part took bytes back counts as no progress.
void DLS_Downloading::updateSpeed(i32 elapsedMs) {
    speedWindow_ += elapsedMs;
    if (speedWindow_ <= speedSample) return;
    const u32 transferred = download.partial().transferred();
    const i32 delta = static_cast<i32>(transferred - lastTransferred_);
    samples_[sampleIndex_] = delta > 0 ? static_cast<f32>(delta) / static_cast<f32>(speedWindow_) : 0.0F;
    sampleIndex_ = (sampleIndex_ + 1) % static_cast<u32>(samples_.size());
    download.speed =
        std::accumulate(samples_.begin(), samples_.end(), 0.0F) / static_cast<f32>(samples_.size());
    speedWindow_ = 0;
    lastTransferred_ = transferred;
}

// The server that we have logged on to meanwhile stands at the head and is due at once; the list is made anew
// every 20 minutes, and what a server's timer says stays.
void DLS_Downloading::refreshServers(i32 elapsedMs) {
    for (ServerAsk& server : servers_)
        server.timer = std::min(server.timer + elapsedMs, 2 * ServerAsk::pause);
    serverListAge_ += elapsedMs;
    if (serverListAge_ > serverListEvery) listServersAnew();
    const ServerAddress current = download.needs.servers.currentAddress();
    if (current.ip == 0) return;
    const auto isCurrent = [&](const ServerAsk& server) { return server.address == current; };
    if (std::none_of(servers_.begin(), servers_.end(), isCurrent)) {
        servers_.insert(servers_.begin(), ServerAsk{current, ServerAsk::pause + 1});
    }
}

void DLS_Downloading::listServersAnew() {
    serverListAge_ = 0;
    std::map<std::pair<u32, u16>, i32> timers;
    for (const ServerAsk& server : servers_)
        timers.emplace(std::pair(server.address.ip, server.address.port), server.timer);
    servers_.clear();
    download.needs.servers.listSourceServers(servers_);
    for (ServerAsk& server : servers_) {
        const auto old = timers.find({server.address.ip, server.address.port});
        if (old != timers.end()) server.timer = old->second;
    }
}

void DLS_Downloading::startMore() {
    if (!download.owner.canStart()) return;
    const i64 small = static_cast<i64>(smallFileChunks) * download.needs.core.preferences.pSize;
    if (download.partial().fileSize() <= small && download.speed >= smallFileSpeed) return;
    if (untilTrue([](FileSourceState& state) { return state.tryConnect(); })) {
        return download.owner.sourceStarted();
    }
    if (!download.needs.servers.isOnline()) return;
    for (ServerAsk& server : servers_) {
        if (server.timer <= ServerAsk::pause) continue;
        if (!download.needs.servers.findSources(server.address, download.partial().getHash())) continue;
        server.timer = 0;
        return;
    }
}

void DLS_Downloading::pause() {
    forEachSource([](FileSourceState& state) { state.pause(); });
    download.needs.core.messages.post(MESSAGE_CHECK_DISK);
    download.become(Stage::paused);
}

void DLS_Downloading::cancel() {
    forEachSource([](FileSourceState& state) { state.drop(); });
    DownloadState::cancel();
}

void DLS_Downloading::diskFull() {
    forEachSource([](FileSourceState& state) { state.diskFull(); });
    download.become(Stage::diskFull);
}

void DLS_Downloading::stop() {
    forEachSource([](FileSourceState& state) { state.stop(); });
}

void DLS_Downloading::idChanged() {
    forEachSource([](FileSourceState& state) { state.idChanged(); });
}

void DLS_Downloading::gotData(i4_ram_file_class& packet, Peer& peer) {
    u32 start = 0;
    u32 end = 0;
    const bool more = download.partial().writeData(packet, start, end);
    if (!more) return finish();
    for (const u32 part : download.partial().takeReopened()) {
        forEachSource([part](FileSourceState& state) { state.partReopened(part); });
    }
    forEachSource([&](FileSourceState& state) { state.gotData(peer); });
}

void DLS_Downloading::finish() {
    forEachSource([](FileSourceState& state) { state.complete(); });
    DownloadBody& body = download;
    body.become(Stage::completing);
    body.startCompleter();
}

void DLS_Downloading::addSource(const UserMeta& user) {
    u32 count = 0;
    for (LL<FileSource>::Cursor c; const FileSource* source = sources_.next(c);) {
        if (source->sameUser(user) || ++count == mostSources) return;
    }
    sources_.ownFront(std::make_unique<FileSource>(user, download));
    sources_.shuffle(download.needs.core.host.random);
}

void DLS_Downloading::peerConnected(Peer& peer) {
    forEachSource([&](FileSourceState& state) { state.peerConnected(peer); });
}

bool DLS_Downloading::offerSlot(Peer& peer) {
    return untilTrue([&](FileSourceState& state) { return state.offerSlot(peer); });
}

bool DLS_Downloading::usesSlot(const Peer& peer) {
    return untilTrue([&](FileSourceState& state) { return state.usesSlot(peer); });
}

bool DLS_Downloading::slotEnded(Peer& peer) {
    return untilTrue([&](FileSourceState& state) { return state.slotEnded(peer); });
}

bool DLS_Downloading::gotFileStatus(Peer& peer, const BoolArray& parts) {
    return untilTrue([&](FileSourceState& state) { return state.gotFileStatus(peer, parts); });
}

void DLS_Downloading::noSuchFile(Peer& peer) {
    forEachSource([&](FileSourceState& state) { state.noSuchFile(peer); });
}

void DLS_Downloading::peerGone(Peer& peer) {
    forEachSource([&](FileSourceState& state) { state.peerGone(peer); });
}

void DLS_Downloading::gotFileName(const char* name, Peer& peer) {
    for (LL<FileSource>::Cursor c; FileSource* source = sources_.next(c);) source->gotName(name, peer);
}

void DLS_Downloading::callbackFailed(u32 serverIp, u32 clientId) {
    forEachSource([&](FileSourceState& state) { state.callbackFailed(serverIp, clientId); });
}

void DLS_Downloading::connectFailed(u32 ip, u16 port) {
    forEachSource([&](FileSourceState& state) { state.connectFailed(ip, port); });
}
