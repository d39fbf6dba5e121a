#include "peer/UploadSlot.h"

#include <algorithm>
#include <utility>

#include "meta/address.h"
#include "peer/PartUpload.h"
#include "peer/Peer.h"

namespace {

constexpr i32 slotLimit = 120'000;  // ms
constexpr i32 retryAfter = 60'000;  // ms

}  // namespace

UploadSlot::UploadSlot(const PeerNeeds& needs, UploadOwner& owner, u32 identity,
                       std::unique_ptr<QueuedUser> user)
    : needs_(needs), owner_(owner), user_(std::move(user)), identity_(identity) {}

const char* UploadSlot::getName() const { return user_->getName(); }

bool UploadSlot::isFor(const Peer& peer) const {
    if (isUsed_ || !peer.isKnown()) return false;
    const MD4Hash hash = peer.userHash();
    return hash.isZero() ? peer.sameUser(*user_) : user_->hash == hash;
}

bool UploadSlot::wasTold(const Peer& peer) const {
    return std::find(told_.begin(), told_.end(), &peer) != told_.end();
}

void UploadSlot::tell(Peer& peer) {
    if (!wasTold(peer)) told_.push_back(&peer);
    peer.grantSlot();
}

void UploadSlot::answered() {
    isCalled_ = false;
    user_->hasAnswered = true;
}

bool UploadSlot::usedBy(const Peer& peer) {
    isUsed_ = isUsed_ || isFor(peer);
    isCalled_ = isCalled_ && !isUsed_;
    std::erase_if(told_,
                  [&](const Peer* told) { return told == &peer || told->userHash() == peer.userHash(); });
    return isUsed_ && told_.empty();
}

bool UploadSlot::leave(const Peer& peer) {
    if (isFor(peer)) return true;
    std::erase(told_, &peer);
    return isUsed_ && told_.empty();
}

void UploadSlot::tellPeer() {
    retry_ = false;
    needs_.core.log.printVerbose("UploadSlot::tellPeer() %s,%d\n", ipToString(user_->id).c_str(),
                                 user_->port);
    Ref<Peer> peer;
    switch (needs_.reach.connectToUser(*user_, peer)) {
        case ConnectResult::peerThere:
            tell(*peer);
            break;
        case ConnectResult::connecting:
            isCalled_ = true;
            break;
        case ConnectResult::tooManyConnections:
            elapsed_ = slotLimit - retryAfter;
            retry_ = true;
            break;
        case ConnectResult::neitherReachable:
        case ConnectResult::impossible:
            elapsed_ = slotLimit + 1;
            break;
    }
}

i32 UploadSlot::untilDue() const { return slotLimit + 1 - elapsed_; }

bool UploadSlot::tick(i32 elapsedMs) {
    if (isTimed_) elapsed_ += elapsedMs;
    isTimed_ = true;
    if (elapsed_ <= slotLimit) return true;
    if (!retry_) {
        needs_.core.log.printVerbose("Slot time out: %s\n", orEmpty(getName()));
        return false;
    }
    elapsed_ = 0;
    tellPeer();
    return true;
}

Ref<Upload> UploadSlot::makeUpload(const MD4Hash& hash, Peer& peer) {
    SharedFile shared;
    if (!needs_.files.find(hash, shared)) return {};
    UIInterface& log = needs_.core.log;
    Disk& disk = needs_.core.host.disk;
    if (shared.path.isNull()) {
        UserMeta asker;
        peer.copyUser(asker);
        Ref<PartReader> parts = needs_.files.partsFor(hash, asker);
        if (!parts) return {};
        return makeRef<PartUpload>(owner_, log, disk, std::move(parts), peer, hash);
    }
    std::unique_ptr<i4_file> file = disk.open(shared.path.c_str(), I4_FILE_READ);
    if (!file) {
        log.printVerbose("File not found for upload: %s\n", shared.path.c_str());
        return {};
    }
    return makeRef<Upload>(owner_, log, std::move(file), peer, shared.name.c_str(), hash);
}
