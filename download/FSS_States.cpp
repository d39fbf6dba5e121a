#include "download/FSS_States.h"

#include <algorithm>

#include "download/DownloadBody.h"
#include "download/FileSource.h"
#include "peer/RemoteQueueList.h"

namespace {

constexpr i32 connectionLimit = 240'000;  // ms
constexpr i32 queueCheckEvery = 600'000;  // ms
constexpr i32 stallLimit = 360'000;       // ms
constexpr i32 statusEvery = 1'800'000;    // ms
constexpr i32 retryEvery = 1'800'000;     // ms

template <class State, class... Arguments>
void change(FileSource& source, Arguments&... arguments) {
    source.setState(std::make_unique<State>(source, arguments...));
}

bool hasNeededPart(const FileSource& source) {
    return source.parts() && source.download.partial().hasNeededPart(*source.parts());
}

bool hasPart(const FileSource& source, u32 part) {
    return source.parts() && source.parts()->get(static_cast<i32>(part));
}

}  // namespace

void FileSourceState::drop() { change<FSS_BadSource>(source); }

// --- FSS_Unasked

// Always true: whatever comes of it, this source has had the turn.
bool FSS_Unasked::tryConnect() {
    const DownloadNeeds& needs = source.download.needs;
    if (!needs.reach.mayConnect()) return true;
    if (needs.queues.isWaiting(source.user)) {
        change<FSS_OnQueue>(source);
        return true;
    }
    Ref<Peer> peer;
    switch (needs.reach.connectToUser(source.user, peer)) {
        case ConnectResult::peerThere:
            source.gotPeer(*peer);
            break;
        case ConnectResult::connecting:
            change<FSS_WaitForConnection>(source);
            break;
        case ConnectResult::neitherReachable:
        case ConnectResult::impossible:
            change<FSS_BadSource>(source);
            break;
        case ConnectResult::tooManyConnections:
            break;
    }
    return true;
}

bool FSS_Unasked::offerSlot(Peer& peer) {
    if (!source.isPeer(peer)) return false;
    FileSource& owner = source;
    if (hasNeededPart(owner)) {
        change<FSS_Transfering>(owner, peer);
    } else if (owner.askFileStatus(peer)) {
        change<FSS_WaitForChunks>(owner, peer);
    } else if (!owner.parts()) {
        owner.takeAllParts();
        change<FSS_Transfering>(owner, peer);
    } else {
        change<FSS_BadSource>(owner);
        source.download.needs.core.messages.post(MESSAGE_OFFER_SLOT, Ref<Peer>(&peer));
    }
    return true;
}

// --- FSS_OnQueue

// Remote queues hold this client under its old ID.
void FSS_OnQueue::idChanged() { change<FSS_Unasked>(source); }

bool FSS_OnQueue::tick(i32 elapsedMs) {
    waited_ += elapsedMs;
    if (waited_ > queueCheckEvery) change<FSS_Unasked>(source);
    return true;
}

// --- FSS_WaitForConnection

void FSS_WaitForConnection::peerConnected(Peer& peer) {
    if (source.isPeer(peer)) source.gotPeer(peer);
}

bool FSS_WaitForConnection::callbackFailed(u32 serverIp, u32 clientId) {
    if (source.user.id != clientId || source.user.serverIp != serverIp) return false;
    source.download.needs.queues.forget(serverIp, clientId);
    change<FSS_BadSource>(source);
    return true;
}

bool FSS_WaitForConnection::connectFailed(u32 ip, u16 port) {
    if (source.user.id != ip || source.user.port != port) return false;
    source.download.needs.queues.forgetAddress(ip, port);
    change<FSS_BadSource>(source);
    return true;
}

bool FSS_WaitForConnection::tick(i32 elapsedMs) {
    waited_ += elapsedMs;
    return waited_ <= connectionLimit;
}

// --- with a Peer

bool PeerState::askHashSet() {
    peer_->askHashSet(source.download.partial().getHash());
    return true;
}

void PeerState::leaveSlot(Ref<Peer> peer) {
    source.download.needs.core.messages.post(MESSAGE_OFFER_SLOT, std::move(peer));
}

// --- FSS_WaitForChunksBQ

bool FSS_WaitForChunksBQ::gotFileStatus(Peer& peer, const BoolArray& parts) {
    if (!isMine(peer)) return false;
    source.setParts(parts);
    if (hasNeededPart(source)) {
        source.download.needs.queues.note(peer);
        change<FSS_OnQueue>(source);
    } else {
        change<FSS_NoNeededParts>(source);
    }
    return true;
}

void FSS_WaitForChunksBQ::peerGone(Peer& peer) {
    if (isMine(peer)) change<FSS_BadSource>(source);
}

void FSS_WaitForChunksBQ::noSuchFile(Peer& peer) {
    if (isMine(peer)) change<FSS_BadSource>(source);
}

// --- FSS_WaitForChunks

void FSS_WaitForChunks::drop() {
    leaveSlot(peer_);
    change<FSS_BadSource>(source);
}

void FSS_WaitForChunks::stop() { drop(); }

bool FSS_WaitForChunks::gotFileStatus(Peer& peer, const BoolArray& parts) {
    if (!isMine(peer)) return false;
    source.setParts(parts);
    if (hasNeededPart(source)) {
        change<FSS_Transfering>(source, peer);
    } else {
        leaveSlot(peer_);
        change<FSS_NoNeededParts>(source);
    }
    return true;
}

bool FSS_WaitForChunks::slotEnded(Peer& peer) {
    if (!isMine(peer)) return false;
    change<FSS_OnQueue>(source);
    return true;
}

void FSS_WaitForChunks::peerGone(Peer& peer) {
    if (isMine(peer)) change<FSS_BadSource>(source);
}

void FSS_WaitForChunks::noSuchFile(Peer& peer) {
    if (isMine(peer)) drop();
}

// --- FSS_Transfering

FSS_Transfering::FSS_Transfering(FileSource& owner, Peer& peer) : PeerState(owner, "Transferring", peer) {
    owner.download.owner.transferStarted();
}

FSS_Transfering::~FSS_Transfering() { source.download.owner.transferEnded(); }

// While the part hashes are unknown they are asked for before the chunks.
void FSS_Transfering::enter() {
    if (!source.download.partial().partHashesKnown()) askHashSet();
    requestChunks();
}

void FSS_Transfering::requestChunks() {
    const i64 most = source.download.needs.core.preferences.pSize;
    bool filled = false;
    bool pending = false;
    for (int i = 0; i < chunks; ++i) {
        if (ends_[i] != 0) {
            pending = true;
        } else if (source.download.progress().pickChunk(source.parts(), most, starts_[i], ends_[i])) {
            filled = true;
        }
    }
    if (filled) {
        peer_->requestParts(source.download.partial().getHash(), starts_, ends_);
    } else if (!pending) {
        leaveSlot(peer_);
        change<FSS_NoNeededParts>(source);
    }
}

// Only the oldest chunk is looked at: one that was finished out of order waits for those before it.
void FSS_Transfering::gotData(Peer& peer) {
    if (!isMine(peer)) return;
    idleTimer_ = 0;
    if (ends_[0] == 0) return;
    if (source.download.partial().overlaps(starts_[0], ends_[0])) return;
    for (int i = 0; i + 1 < chunks; ++i) {
        starts_[i] = starts_[i + 1];
        ends_[i] = ends_[i + 1];
    }
    starts_[chunks - 1] = ends_[chunks - 1] = 0;
    requestChunks();
}

void FSS_Transfering::giveBack() {
    for (int i = 0; i < chunks; ++i) {
        source.download.progress().removeRequested(starts_[i], ends_[i]);
        starts_[i] = ends_[i] = 0;
    }
}

void FSS_Transfering::pause() {
    giveBack();
    drop();
}

void FSS_Transfering::drop() {
    peer_->stopUpload(source.download.partial().getHash());
    leaveSlot(peer_);
    change<FSS_BadSource>(source);
}

bool FSS_Transfering::gotFileStatus(Peer& peer, const BoolArray& parts) {
    if (!isMine(peer)) return false;
    source.setParts(parts);
    return true;
}

bool FSS_Transfering::slotEnded(Peer& peer) {
    if (!isMine(peer)) return false;
    giveBack();
    change<FSS_OnQueue>(source);
    return true;
}

void FSS_Transfering::peerGone(Peer& peer) {
    if (!isMine(peer)) return;
    giveBack();
    source.download.needs.queues.release(peer);
    change<FSS_BadSource>(source);
}

void FSS_Transfering::noSuchFile(Peer& peer) {
    if (!isMine(peer)) return;
    giveBack();
    leaveSlot(peer_);
    change<FSS_BadSource>(source);
}

bool FSS_Transfering::tick(i32 elapsedMs) {
    idleTimer_ += elapsedMs;
    if (idleTimer_ > stallLimit) {
        giveBack();
        change<FSS_Unasked>(source);
        return true;
    }
    statusTimer_ += elapsedMs;
    if (statusTimer_ > statusEvery) {
        statusTimer_ = 0;
        source.askFileStatus(*peer_);
    }
    return true;
}

// A source with room in its slots asks again; chunks that were asked for come anyway.
void FSS_Transfering::partReopened(u32 part) {
    const bool hasRoom = std::any_of(ends_, ends_ + chunks, [](u32 end) { return end == 0; });
    if (hasRoom && hasPart(source, part)) requestChunks();
}

// --- FSS_NoNeededParts

bool FSS_NoNeededParts::tick(i32 elapsedMs) {
    waited_ += elapsedMs;
    if (waited_ > retryEvery) {
        source.clearParts();
        change<FSS_Unasked>(source);
    }
    return true;
}

void FSS_NoNeededParts::partReopened(u32 part) {
    if (hasPart(source, part)) change<FSS_Unasked>(source);
}
