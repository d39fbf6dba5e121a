#include "download/FSS_States.h"

#include <algorithm>

#include "download/DownloadBody.h"
#include "download/FileSource.h"
#include "peer/RemoteQueueList.h"

namespace {

constexpr i32 stallLimit = 360'000;      // ms
constexpr i32 statusEvery = 1'800'000;   // ms
constexpr i32 slowAfter = 10'000;        // ms without useful data: others may ask for the same chunks
constexpr i32 lostAfter = 20'000;        // ms without useful data: the chunks are free again
constexpr i32 sourceSpeedSample = 1000;  // ms
constexpr f32 muchSlower = 2.0F;         // times

template <class State, class... Arguments>
void change(FileSource& source, Arguments&... arguments) {
    source.become<State>(arguments...);
}

bool hasNeededPart(const FileSource& source) {
    return source.parts() && source.download.partial().hasNeededPart(*source.parts());
}

bool hasPart(const FileSource& source, u32 part) {
    return source.parts() && source.parts()->get(static_cast<i32>(part));
}

}  // namespace

void FileSourceState::drop() { change<FSS_BadSource>(source); }

bool FileSourceState::tick(i32 elapsedMs) {
    waited_ += elapsedMs;
    return limit_ == 0 || waited_ <= limit_ || timedOut();
}

// --- FSS_Unasked

// A source that only waits in its queue costs no connection.
bool FSS_Unasked::tryConnect() {
    const DownloadNeeds& needs = source.download.needs;
    if (!needs.reach.mayConnect()) return true;
    if (needs.queues.isWaiting(source.user)) {
        change<FSS_OnQueue>(source);
        return false;
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

void FSS_Unasked::peerConnected(Peer& peer) { source.gotPeer(peer); }

bool FSS_Unasked::offerSlot(Peer& peer) {
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
        owner.download.needs.core.messages.post(MESSAGE_OFFER_SLOT, Ref<Peer>(&peer));
    }
    return true;
}

// --- FSS_OnQueue

// Remote queues hold this client under its old ID.
void FSS_OnQueue::idChanged() { change<FSS_Unasked>(source); }

bool FSS_OnQueue::timedOut() {
    change<FSS_Unasked>(source);
    return true;
}

// --- FSS_WaitForConnection

void FSS_WaitForConnection::peerConnected(Peer& peer) { source.gotPeer(peer); }

void FSS_WaitForConnection::reachFailed(const ReachEvent& how) {
    RemoteQueueList& queues = source.download.needs.queues;
    if (const auto* callback = std::get_if<CallbackFailed>(&how)) {
        queues.forget(callback->serverIp, callback->clientId);
    } else {
        const auto& connect = std::get<ConnectFailed>(how);
        queues.forgetAddress(connect.ip, connect.port);
    }
    drop();
}

// --- with a Peer

PeerState::PeerState(FileSource& owner, const char* text, i32 limitMs, Peer& peer)
    : FileSourceState(owner, text, limitMs) {
    owner.talkWith(Ref<Peer>(&peer));
}

PeerState::~PeerState() { source.talkWith({}); }

bool PeerState::askHashSet() {
    source.peer()->askHashSet(source.download.partial().getHash());
    return true;
}

bool PeerState::timedOut() {
    drop();
    return true;
}

void PeerState::leaveSlot() { source.download.needs.core.messages.post(MESSAGE_OFFER_SLOT, source.peer()); }

// --- FSS_WaitForChunksBQ

void FSS_WaitForChunksBQ::gotFileStatus(const BoolArray& parts) {
    source.setParts(parts);
    if (hasNeededPart(source)) {
        source.download.needs.queues.note(*source.peer());
        change<FSS_OnQueue>(source);
    } else {
        change<FSS_NoNeededParts>(source);
    }
}

// --- FSS_WaitForChunks

void FSS_WaitForChunks::drop() {
    leaveSlot();
    change<FSS_BadSource>(source);
}

void FSS_WaitForChunks::gotFileStatus(const BoolArray& parts) {
    const Ref<Peer> peer = source.peer();
    source.setParts(parts);
    if (hasNeededPart(source)) return change<FSS_Transfering>(source, *peer);
    leaveSlot();
    change<FSS_NoNeededParts>(source);
}

void FSS_WaitForChunks::slotEnded() { change<FSS_OnQueue>(source); }

// --- FSS_Transfering

FSS_Transfering::FSS_Transfering(FileSource& owner, Peer& peer)
    : PeerState(owner, "Transferring", stallLimit, peer) {
    owner.download.owner.transferStarted();
}

FSS_Transfering::~FSS_Transfering() {
    for (Place& place : places_) giveBack(place);
    source.download.leaveParts(source.account());
    source.download.owner.transferEnded();
}

// While the part hashes are unknown they are asked for before the chunks.
void FSS_Transfering::enter() {
    if (!source.download.partial().partHashesKnown()) askHashSet();
    askForMore();
}

// A place whose chunk was finished out of order waits for those before it.
bool FSS_Transfering::closeRanks() {
    const PartialFile& partial = source.download.partial();
    bool moved = false;
    while (!places_[0].chunk.isEmpty() && !partial.overlaps(places_[0].chunk.start, places_[0].chunk.end)) {
        if (places_[0].isMine) source.download.progress().finished(places_[0].chunk);
        std::rotate(places_.begin(), places_.begin() + 1, places_.end());
        places_.back() = {};
        moved = true;
    }
    return moved;
}

// True where it asks for something new.
bool FSS_Transfering::fillPlaces() {
    DownloadBody& download = source.download;
    bool filled = false;
    for (Place& place : places_) {
        if (!place.chunk.isEmpty()) continue;
        place.chunk = download.progress().pickChunk(source.asker(), download.needs.core.preferences.pSize);
        if (place.chunk.isEmpty() && !filled) place.chunk = download.takeOver(source, speed_);
        place.isMine = !place.chunk.isEmpty();
        if (!place.isMine) break;
        filled = true;
    }
    return filled;
}

void FSS_Transfering::askForMore() {
    const bool wasIdle = places_[0].chunk.isEmpty();
    if (fillPlaces()) {
        if (wasIdle) {
            restartLimit();
            busy_ = 0;
        }
        u32 starts[3];
        u32 ends[3];
        for (std::size_t i = 0; i < places_.size(); ++i) {
            starts[i] = places_[i].chunk.start;
            ends[i] = places_[i].chunk.end;
        }
        source.peer()->requestParts(source.download.partial().getHash(), starts, ends);
    } else if (places_[0].chunk.isEmpty() && !source.download.progress().hasMissing(source.parts())) {
        leaveSlot();
        change<FSS_NoNeededParts>(source);
    }
}

bool FSS_Transfering::wasAskedFor(u32 start, u32 end) const {
    return std::any_of(places_.begin(), places_.end(), [&](const Place& place) {
        return start >= place.chunk.start && end <= place.chunk.end;
    });
}

void FSS_Transfering::gotData(u32 bytes) {
    if (bytes > 0) restartLimit();
    windowBytes_ += bytes;
    if (closeRanks()) askForMore();
}

void FSS_Transfering::giveBack(Place& place) {
    if (place.isMine) source.download.progress().giveBack(place.chunk);
    place.isMine = false;
}

void FSS_Transfering::drop() {
    source.peer()->stopUpload(source.download.partial().getHash());
    leaveSlot();
    change<FSS_BadSource>(source);
}

void FSS_Transfering::gotFileStatus(const BoolArray& parts) {
    source.setParts(parts);
    askForMore();
}

void FSS_Transfering::slotEnded() { change<FSS_OnQueue>(source); }

void FSS_Transfering::peerGone() {
    source.download.needs.queues.release(*source.peer());
    // One that had nothing to do was closed because of that.
    if (places_[0].chunk.isEmpty()) return change<FSS_Unasked>(source);
    change<FSS_BadSource>(source);
}

void FSS_Transfering::noSuchFile() {
    leaveSlot();
    change<FSS_BadSource>(source);
}

bool FSS_Transfering::timedOut() {
    change<FSS_Unasked>(source);
    return true;
}

void FSS_Transfering::measureSpeed(i32 elapsedMs) {
    if (places_[0].chunk.isEmpty()) return;
    busy_ += elapsedMs;
    speedWindow_ += elapsedMs;
    if (speedWindow_ < sourceSpeedSample) return;
    const f32 now = static_cast<f32>(windowBytes_) / static_cast<f32>(speedWindow_);
    speed_ = speed_ == 0 ? now : (3 * speed_ + now) / 4;
    speedWindow_ = 0;
    windowBytes_ = 0;
}

bool FSS_Transfering::tick(i32 elapsedMs) {
    // Its chunks are free for others; what it sends of them is still taken.
    if (waited() + elapsedMs > lostAfter) {
        for (Place& place : places_) giveBack(place);
        source.download.leaveParts(source.account());
    }
    statusTimer_ += elapsedMs;
    if (statusTimer_ > statusEvery) {
        statusTimer_ = 0;
        source.askFileStatus(*source.peer());
    }
    measureSpeed(elapsedMs);
    return PeerState::tick(elapsedMs);
}

// What was asked for of the part would come in vain: it was asked for before the part failed.
void FSS_Transfering::partReopened(u32 part) { dropChunksOf(part); }

void FSS_Transfering::dropChunksOf(u32 part) {
    for (Place& place : places_) {
        if (place.chunk.isEmpty() || place.chunk.part() != part) continue;
        giveBack(place);
        place = {};
    }
    std::stable_partition(places_.begin(), places_.end(),
                          [](const Place& place) { return !place.chunk.isEmpty(); });
}

// Whether `bytes` take it more than twice as long as the rest of a chunk takes another. A source has some
// time to come up to its speed, and more where it is to give a part alone.
bool FSS_Transfering::isMuchSlower(f32 bytes, const Chunk& rest, f32 takersSpeed) const {
    if (waited() >= slowAfter) return true;
    if (source.download.progress().isAlone(rest.part()))
        return busy_ >= lostAfter && takersSpeed > muchSlower * speed_;
    return busy_ >= slowAfter && bytes * takersSpeed > muchSlower * static_cast<f32>(rest.bytes()) * speed_;
}

// A part that it was to give alone is free as a whole, for the next who asks.
Chunk FSS_Transfering::letGo(const BoolArray& takersParts, f32 takersSpeed) {
    const PartialFile& partial = source.download.partial();
    f32 bytes = 0;
    for (Place& place : places_) {
        if (!place.isMine) continue;
        const std::vector<Gap> missing = partial.missing(place.chunk.start, place.chunk.end);
        if (missing.empty()) continue;
        const Chunk rest{static_cast<u32>(missing.front().start), static_cast<u32>(missing.back().end)};
        bytes += static_cast<f32>(rest.bytes());
        if (!takersParts.get(static_cast<i32>(rest.part()))) continue;
        if (!isMuchSlower(bytes, rest, takersSpeed)) continue;
        if (source.download.progress().isAlone(rest.part())) {
            dropChunksOf(rest.part());
            source.download.leaveParts(source.account());
            return {};
        }
        place.isMine = false;
        source.download.progress().finished(place.chunk);
        return rest;
    }
    return {};
}

// --- FSS_NoNeededParts

bool FSS_NoNeededParts::timedOut() {
    source.clearParts();
    change<FSS_Unasked>(source);
    return true;
}

void FSS_NoNeededParts::partReopened(u32 part) {
    if (hasPart(source, part)) change<FSS_Unasked>(source);
}
