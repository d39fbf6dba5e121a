#include "peer/UploadSlot.h"

#include <atomic>

#include "app/ClientApp.h"
#include "app/UIInterface.h"
#include "download/DLPool.h"
#include "meta/address.h"
#include "peer/PartUpload.h"
#include "peer/Peer.h"

namespace {

constexpr i32 slotLimit = 120'000;  // ms
constexpr i32 retryAfter = 60'000;  // ms

std::atomic<u32> identities{0};

}  // namespace

UploadSlot::UploadSlot(const UserMeta& user) : identity_(++identities) { user_.copyFrom(&user); }

const char* UploadSlot::getName() const { return user_.getName(); }

void UploadSlot::tellPeer() {
    retry_ = false;
    theLog->printVerbose("UploadSlot::tellPeer() %s,%d\n", ipToString(user_.id).c_str(), user_.port);
    Ref<Peer> peer;
    switch (clientApp.connectToUser(user_, peer)) {
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
            elapsed_ = slotLimit;
            break;
    }
}

bool UploadSlot::tick(i32 elapsedMs) {
    elapsed_ += elapsedMs;
    if (elapsed_ <= slotLimit) return true;
    if (!retry_) {
        theLog->printVerbose("Slot time out: %s\n", orEmpty(getName()));
        return false;
    }
    elapsed_ = 0;
    tellPeer();
    return true;
}

Ref<Upload> UploadSlot::makeUpload(const MD4Hash& hash, Peer& peer) {
    i4_string path{nullptr};
    i4_string name{nullptr};
    {
        FileList& shared = clientApp.shared;
        const i4_guard guard(shared);
        const FileMeta* file = shared.findUnsafe(hash);
        if (!file) return {};
        path = file->path;
        name = file->getName();
    }
    if (path.isNull()) {
        const Ref<Download> download = dlPool.find(hash);
        return download ? Ref<Upload>(new PartUpload(*download, peer, hash)) : Ref<Upload>();
    }
    std::unique_ptr<i4_file> file = i4_open_exact(path.c_str(), I4_FILE_READ);
    if (!file) {
        theLog->printVerbose("File not found for upload: %s\n", path.c_str());
        return {};
    }
    return Ref<Upload>(new Upload(std::move(file), peer, name.c_str(), hash));
}
