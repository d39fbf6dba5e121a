#include "download/FileSource.h"

#include <algorithm>

#include "download/DownloadBody.h"
#include "download/FSS_States.h"
#include "peer/Peer.h"
#include "peer/RemoteQueueList.h"

namespace {

constexpr std::size_t longestSourceName = 255;  // bytes
constexpr u64 mostUnasked = 2'000'000;          // bytes: more than was under way when it was told to stop

}  // namespace

FileSource::FileSource(const UserMeta& who, DownloadBody& owner) : download(owner) {
    user.copyFrom(&who);
    state_ = std::make_unique<FSS_Unasked>(*this);
}

FileSource::~FileSource() {
    state_.reset();
    clearParts();
}

// A peer that closes, or was closed before its state began, tells nobody any more.
bool FileSource::tick(i32 elapsedMs) {
    if (peer_ && (peer_->isClosing() || peer_->isDead())) state_->peerGone();
    return state_->tick(elapsedMs);
}

bool FileSource::sameUser(const UserMeta& other) const { return user.sameUser(&other); }

void FileSource::talkWith(Ref<Peer> peer) {
    if (peer_) {
        download.talking.erase(peer_.get());
        std::erase(download.talkers, this);
    }
    peer_ = std::move(peer);
    if (!peer_) return;
    download.talking.emplace(peer_.get(), this);
    download.talkers.push_back(this);
}

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

// A user who is here already by another address counts once.
void FileSource::gotPeer(Peer& peer) {
    peer.copyUser(user);
    account_ = download.accounts.find(user);
    if (download.owner.isBanned(user) || download.talking.contains(&peer)) return become<FSS_BadSource>();
    if (name.length() == 0) peer.askFileName(download.partial().getHash());
    const bool needed = parts_ && download.partial().hasNeededPart(*parts_);
    if (!needed && askFileStatus(peer)) return become<FSS_WaitForChunksBQ>(peer);
    if (!parts_) {
        takeAllParts();
    } else if (!needed) {
        return become<FSS_BadSource>();
    }
    download.needs.queues.note(peer);
    become<FSS_OnQueue>();
}

void FileSource::gotName(const char* given) {
    name = i4_string(given, std::min(i4_strlen(given), longestSourceName));
}

void FileSource::gotUnasked(u32 bytes) {
    SourceAccount& account = download.accounts[openAccount()];
    account.unasked += bytes;
    if (account.unasked > mostUnasked + account.delivered) state_->drop();
}

u32 FileSource::openAccount() {
    if (account_ == noAccount) account_ = download.accounts.idOf(user);
    return account_;
}

bool FileSource::isSuspect() const {
    return account_ != noAccount && download.accounts[account_].isSuspect();
}

Asker FileSource::asker() {
    const u32 id = openAccount();
    return {parts_.get(), id, download.accounts[id].isProven, !isSuspect() || !download.hasUnsuspected()};
}
