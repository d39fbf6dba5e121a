#include "download/DLS_Downloading.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <numeric>
#include <utility>

#include "download/DownloadBody.h"
#include "download/FSS_States.h"

namespace {

constexpr i32 hashSetEvery = 60'000;        // ms
constexpr i32 serverListEvery = 1'200'000;  // ms
constexpr i32 speedSample = 2000;           // ms
constexpr i32 moreEvery = 1000;             // ms
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
    if (stopOnLoss()) return;
    // The verifier had no room, or the file was whole when the program ended.
    if (isUnchecked_ || download.partial().isComplete()) hashSetKnown();
    if (finishIfWhole()) return;
    updateSpeed(elapsedMs);
    LL<FileSource>::Cursor before;
    LL<FileSource>::Cursor at;
    while (FileSource* source = sources_.next(at)) {
        if (source->tick(elapsedMs)) {
            before = at;
        } else {
            const std::unique_ptr<FileSource> removed(source);
            at = before = sources_.removeNext(before);
        }
    }
    moreTimer_ += elapsedMs;
    if (moreTimer_ >= moreEvery) letSourcesAsk();
    refreshServers(elapsedMs);
    startMore();
    askHashSet(elapsedMs);
}

// What one has given back, or may give to a faster one, is for another. A part that failed is offered first
// to those who may fetch it: once one of them does, the others wait.
void DLS_Downloading::letSourcesAsk() {
    moreTimer_ = 0;
    const std::vector<FileSource*> all = download.talkers;
    for (const bool suspects : {false, true}) {
        for (FileSource* source : all) {
            if (source->isSuspect() == suspects) source->state().askForMore();
        }
    }
}

void DLS_Downloading::askHashSet(i32 elapsedMs) {
    if (download.partial().partHashesKnown()) return;
    hashTimer_ += elapsedMs;
    if (hashTimer_ <= hashSetEvery) return;
    hashTimer_ = 0;
    askSomeHashSet();
}

// One after the other: the answer of the last one may have been no good.
void DLS_Downloading::askSomeHashSet() {
    const std::vector<FileSource*>& all = download.talkers;
    if (!all.empty()) all[hashQuestions_++ % all.size()]->state().askHashSet();
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
    dropAll();
    download.needs.core.messages.post(MESSAGE_CHECK_DISK);
    download.become(Stage::paused);
}

void DLS_Downloading::cancel() {
    dropAll();
    DownloadState::cancel();
}

void DLS_Downloading::diskFull() {
    dropAll();
    download.become(Stage::diskFull);
}

void DLS_Downloading::dropAll() {
    forEachSource([](FileSourceState& state) { state.drop(); });
}

void DLS_Downloading::idChanged() {
    forEachSource([](FileSourceState& state) { state.idChanged(); });
}

// --- data

void DLS_Downloading::gotData(FileSource& source, i4_ram_file_class& packet) {
    const u32 start = packet.read_32();
    const u32 end = packet.read_32();
    if (start >= end || !source.state().wasAskedFor(start, end)) {
        return source.gotUnasked(packet.bytesLeft().value_or(0));
    }
    if (const std::optional<u32> bytes = take(packet, start, end, source.openAccount())) {
        source.state().gotData(*bytes);
    }
}

std::optional<u32> DLS_Downloading::take(i4_ram_file_class& packet, u32 start, u32 end, u32 account) {
    u32 bytes = 0;
    for (const Gap& gap : download.partial().writeData(packet, start, end)) {
        const u32 from = static_cast<u32>(gap.start);
        const u32 to = static_cast<u32>(gap.end);
        bytes += to - from;
        if (account != noAccount) download.accounts.gave(account, from, to);
    }
    if (stopOnLoss()) return std::nullopt;
    if (bytes > 0) checkParts(start / PARTSIZE, end / PARTSIZE);
    if (finishIfWhole()) return std::nullopt;
    return bytes;
}

// True where the disk took not all: the download stops until there is room, or until the user says so.
bool DLS_Downloading::stopOnLoss() {
    const int error = download.partial().reopenLost();
    if (error == 0) return false;
    if (error == ENOSPC || error == EDQUOT) {
        diskFull();
    } else {
        pause();
    }
    return true;
}

void DLS_Downloading::hashSetKnown() { checkParts(0, download.partial().getPartCount() - 1); }

void DLS_Downloading::checkParts(u32 first, u32 last) {
    isUnchecked_ = false;
    for (u32 part = first; part <= last && part < download.partial().getPartCount(); ++part) {
        if (download.partial().mayCheck(part) && !download.check(part)) isUnchecked_ = true;
    }
}

// A bad part's bytes are missing again, and a source with an account that gave wrong ones is out.
void DLS_Downloading::partChecked(const CheckedPart& checked, const std::vector<u32>& liars) {
    const std::vector<FileSource*> all = download.talkers;
    for (FileSource* source : all) {
        const u32 account = source->account();
        if (std::find(liars.begin(), liars.end(), account) != liars.end()) source->state().drop();
    }
    if (checked.outcome != CheckedPart::Outcome::passed) {
        forEachSource([&](FileSourceState& state) { state.partReopened(checked.part); });
    }
    if (!finishIfWhole()) letSourcesAsk();
}

bool DLS_Downloading::hasOthersToAsk() {
    for (LL<FileSource>::Cursor c; const FileSource* source = sources_.next(c);) {
        const u32 account = source->account();
        if (account == noAccount || download.accounts[account].failedParts == 0) return true;
    }
    return false;
}

// Nothing is missing, and nothing is left to be checked.
bool DLS_Downloading::finishIfWhole() {
    if (!download.partial().isComplete() || download.partial().isChecking() || isUnchecked_) return false;
    dropAll();
    DownloadBody& body = download;
    body.become(Stage::completing);
    body.startCompleter();
    return true;
}

// --- sources

void DLS_Downloading::addSource(const UserMeta& user) {
    if (download.owner.isBanned(user)) return;
    u32 count = 0;
    for (LL<FileSource>::Cursor c; const FileSource* source = sources_.next(c);) {
        if (source->sameUser(user) || ++count == mostSources) return;
    }
    sources_.ownFront(std::make_unique<FileSource>(user, download));
    sources_.shuffle(download.needs.core.host.random);
}

// The source that talks to this peer; else the first that is the same user.
FileSource* DLS_Downloading::sourceOf(Peer& peer) {
    const auto found = download.talking.find(&peer);
    if (found != download.talking.end()) return found->second;
    UserMeta user;
    peer.copyUser(user);
    for (LL<FileSource>::Cursor c; FileSource* source = sources_.next(c);) {
        if (source->sameUser(user)) return source;
    }
    return nullptr;
}

bool DLS_Downloading::on(Peer& peer, const PeerEvent& event) {
    // Only these are for a source that doesn't talk to the peer yet.
    if (std::holds_alternative<PeerConnected>(event)) {
        FileSource* source = sourceOf(peer);
        if (source && !source->peer()) source->state().peerConnected(peer);
        return source != nullptr;
    }
    if (std::holds_alternative<SlotGranted>(event)) {
        FileSource* source = sourceOf(peer);
        return source && (source->state().usesSlot() || source->state().offerSlot(peer));
    }
    if (const auto* name = std::get_if<GotFileName>(&event)) {
        if (FileSource* source = sourceOf(peer)) source->gotName(name->name);
        return true;
    }
    const auto found = download.talking.find(&peer);
    if (found == download.talking.end()) return false;
    FileSource& source = *found->second;
    if (const auto* data = std::get_if<GotData>(&event)) {
        gotData(source, data->packet);
    } else if (const auto* told = std::get_if<GotFileStatus>(&event)) {
        source.state().gotFileStatus(told->parts);
    } else if (std::holds_alternative<SlotEnded>(event)) {
        const bool used = source.state().usesSlot();
        source.state().slotEnded();
        return used;
    } else if (std::holds_alternative<PeerGone>(event)) {
        source.state().peerGone();
    } else {
        source.state().noSuchFile();
    }
    return true;
}

void DLS_Downloading::on(const ReachEvent& event) {
    const auto* callback = std::get_if<CallbackFailed>(&event);
    const auto* connect = std::get_if<ConnectFailed>(&event);
    for (LL<FileSource>::Cursor c; FileSource* source = sources_.next(c);) {
        const UserMeta& user = source->user;
        if (callback ? user.id == callback->clientId && user.serverIp == callback->serverIp
                     : user.id == connect->ip && user.port == connect->port)
            source->state().reachFailed(event);
    }
}
