#include "peer/Upload.h"

#include <algorithm>
#include <functional>
#include <numeric>

#include "i4min/memory/error.h"
#include "peer/Peer.h"
#include "peer/UploadPacket.h"
#include "protocol/PeerProtocol.h"

namespace {

constexpr u32 dataHead = 25;          // opcode, hash, start, end
constexpr i32 speedSample = 2000;     // ms
constexpr i32 requestLimit = 10'000;  // ms to wait for the next request
constexpr f32 basePacket = 10'240.0F;
constexpr f32 mostPacket = 1024.0F * 1024.0F;  // a peer limits the body size, and it bounds our memory

// True if the two positions are in different parts. A peer that moves to another part may be replaced.
bool otherPart(u32 a, u32 b) { return a / PARTSIZE != b / PARTSIZE; }

}  // namespace

Upload::Upload(UploadOwner& owner, UIInterface& log, std::unique_ptr<i4_file> file, Peer& peer,
               const char* name, const MD4Hash& hash)
    : file_(std::move(file)),
      name_(name),
      peer_(&peer),
      hash_(hash),
      userHash_(peer.userHash()),
      owner_(owner),
      log_(log),
      isShown_(log.mayComplain(UIInterface::Complaint::upload)) {
    if (isShown_) log_.printLine("New Upload");
}

Upload::~Upload() {
    if (isShown_) log_.printLine("~Upload");
}

bool Upload::isPeer(const Peer& other) const { return peer_.get() == &other; }
bool Upload::isOf(const UserMeta& user) const {
    return user.hash.isZero() ? peer_->sameUser(user) : userHash_ == user.hash;
}
Peer& Upload::peer() const { return *peer_; }

bool Upload::readData(u8* buffer, u32 length) {
    return i4_attempt([&] {
        if (file_->seek(position_) != position_) return false;
        file_->readAll({buffer, length});
        return true;
    });
}

void Upload::updateSpeed(i32 elapsedMs) {
    speedClock_ += elapsedMs;
    if (speedClock_ <= speedSample) return;
    const u32 sent = bytesSent;
    speeds_[speedIndex_] = static_cast<f32>(sent - lastBytes_) / static_cast<f32>(speedClock_);
    speedIndex_ = (speedIndex_ + 1) % static_cast<u32>(speeds_.size());
    speed = std::accumulate(speeds_.begin(), speeds_.end(), 0.0F) / 8.0F;
    speedClock_ = 0;
    lastBytes_ = sent;
    packetSize_ = static_cast<u32>(std::min((speed / 100.0F + 1.0F) * basePacket, mostPacket));
}

void Upload::setRanges(const u32 (&starts)[3], const u32 (&ends)[3]) {
    if (bytesSent != 0 && otherPart(ranges_[0].start, starts[0])) owner_.markReplaceable(*this);
    for (std::size_t i = 0; i < ranges_.size(); ++i) {
        ranges_[i] = starts[i] < ends[i] ? Range{starts[i], ends[i]} : Range{};
    }
    const auto isEmpty = [](const Range& range) { return range == Range{}; };
    askedForNothing_ = std::all_of(ranges_.begin(), ranges_.end(), isEmpty);
    dropRepeats();
    // An empty range before others would end the upload.
    std::stable_partition(ranges_.begin(), ranges_.end(), std::not_fn(isEmpty));
    if (position_ <= ranges_[0].start || position_ >= ranges_[0].end) position_ = ranges_[0].start;
}

// Removes a requested range that was just sent in full, and those before it that were sent shortly before:
// the peer sent the request before it received them.
void Upload::dropRepeats() {
    if (finished_[0] == Range{}) return;
    const auto newest = std::find(ranges_.begin(), ranges_.end(), finished_[0]);
    if (newest == ranges_.end()) return;
    std::replace_if(
        ranges_.begin(), newest + 1,
        [&](const Range& range) {
            return std::find(finished_.begin(), finished_.end(), range) != finished_.end();
        },
        Range{});
}

bool Upload::mayStayDry(i32 elapsedMs) {
    const u32 wait = timesDry_;
    dryMs_ = isDry_ == 0 ? 0 : wait == seenTimesDry_ ? dryMs_ + elapsedMs : elapsedMs;
    seenTimesDry_ = wait;
    return dryMs_ <= requestLimit;
}

void Upload::sendNext() {
    isDry_ = 0;
    if (ranges_[0].end == position_ && stopped_ == 0 && bytesSent != 0 && !askedForNothing_) {
        timesDry_.add(1);
        isDry_ = 1;
        return;
    }
    if (ranges_[0].end == position_ || stopped_ != 0) {
        owner_.endUpload(*this);
        return;
    }
    if (ranges_[0].end < position_) {
        log_.printVerbose("Crazy packet\n");
        return;
    }
    const u32 length = std::min(ranges_[0].end - position_, packetSize_.get());
    auto packet = std::make_unique<UploadPacket>(dataHead + length, *this);
    i4_ram_file_class& body = packet->stream;
    body.write_8(OP_FILE_DATA);
    hash_.write(body);
    body.write_32(position_);
    body.write_32(position_ + length);
    if (!readData(body.here(), length)) {
        owner_.endUpload(*this);
        return;
    }
    position_ += length;
    peer_->send(std::move(packet));
    peer_->showLife();
    if (position_ >= ranges_[0].end) finishRange();
}

void Upload::finishRange() {
    if (otherPart(ranges_[0].start, ranges_[1].start)) owner_.markReplaceable(*this);
    std::move_backward(finished_.begin(), finished_.end() - 1, finished_.end());
    finished_[0] = ranges_[0];
    std::move(ranges_.begin() + 1, ranges_.end(), ranges_.begin());
    ranges_.back() = {};
    position_ = ranges_[0].start;
}

i4_string Upload::getPeerName() const { return peer_->userName(); }
void Upload::copyPeerUser(UserMeta& out) const { peer_->copyUser(out); }
