#include "peer/UploadSlot.h"

#include "meta/address.h"
#include "peer/PartUpload.h"
#include "peer/Peer.h"

namespace {

constexpr i32 slotLimit = 120'000;  // ms
constexpr i32 retryAfter = 60'000;  // ms

}  // namespace

UploadSlot::UploadSlot(const PeerNeeds& needs, UploadOwner& owner, u32 identity, const UserMeta& user)
    : needs_(needs), owner_(owner), identity_(identity) {
    user_.copyFrom(&user);
}

const char* UploadSlot::getName() const { return user_.getName(); }

void UploadSlot::tellPeer() {
    retry_ = false;
    needs_.core.log.printVerbose("UploadSlot::tellPeer() %s,%d\n", ipToString(user_.id).c_str(), user_.port);
    Ref<Peer> peer;
    switch (needs_.reach.connectToUser(user_, peer)) {
        case ConnectResult::peerThere:
            peer->grantSlot();
            break;
        case ConnectResult::connecting:
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
