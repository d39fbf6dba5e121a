#include "download/FileSource.h"

#include <algorithm>

#include "download/DownloadBody.h"
#include "download/FSS_States.h"
#include "peer/Peer.h"
#include "peer/RemoteQueueList.h"

namespace {

constexpr std::size_t longestSourceName = 255;  // bytes

}  // namespace

FileSource::FileSource(const UserMeta& who, DownloadBody& owner) : download(owner) {
    user.copyFrom(&who);
    state_ = std::make_unique<FSS_Unasked>(*this);
}

FileSource::~FileSource() {
    clearParts();
    state_.reset();
}

void FileSource::setState(std::unique_ptr<FileSourceState> state) {
    state_.reset();
    state_ = std::move(state);
    state_->enter();
}

bool FileSource::sameUser(const UserMeta& other) const { return user.sameUser(&other); }
bool FileSource::isPeer(const Peer& peer) const { return peer.sameUser(user); }

void FileSource::setParts(const BoolArray& parts) {
    clearParts();
    parts_ = std::make_unique<BoolArray>(parts.size());
    parts_->copyFrom(&parts);
    download.progress().addParts(parts_.get());
}

// A file that no status is asked for is one that whoever has it has whole.
void FileSource::takeAllParts() {
    BoolArray all(static_cast<i32>(download.partial().getPartCount()));
    all.setAll(true);
    setParts(all);
}

void FileSource::clearParts() {
    download.progress().removeParts(parts_.get());
    parts_.reset();
}

bool FileSource::askFileStatus(Peer& peer) const {
    const PartialFile& partial = download.partial();
    return peer.askFileStatus(partial.getHash(), partial.fileSize());
}

void FileSource::gotPeer(Peer& peer) {
    peer.copyUser(user);
    if (name.length() == 0) peer.askFileName(download.partial().getHash());
    const bool needed = parts_ && download.partial().hasNeededPart(*parts_);
    if (!needed && askFileStatus(peer)) {
        setState(std::make_unique<FSS_WaitForChunksBQ>(*this, peer));
        return;
    }
    if (!parts_) {
        takeAllParts();
    } else if (!needed) {
        setState(std::make_unique<FSS_BadSource>(*this));
        return;
    }
    download.needs.queues.note(peer);
    setState(std::make_unique<FSS_OnQueue>(*this));
}

void FileSource::gotName(const char* given, const Peer& peer) {
    if (isPeer(peer)) name = i4_string(given, std::min(i4_strlen(given), longestSourceName));
}
