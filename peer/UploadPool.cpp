#include "peer/UploadPool.h"

#include <algorithm>
#include <cassert>
#include <limits>
#include <map>
#include <memory>
#include <vector>

#include "i4min/memory/debug_build.h"
#include "meta/UserMeta.h"
#include "peer/Peer.h"
#include "peer/PeerNeeds.h"
#include "peer/Upload.h"
#include "peer/UploadSlot.h"

namespace {

constexpr u32 queueMemory = 2'699'999;  // ms after which a user who didn't ask again is forgotten
constexpr i32 queueLimit = 50;          // users who wait, but for those who had an upload
constexpr i32 placesOfConnection = 8;   // that one connection has asked for
constexpr i32 placesOfAddress = 12;     // of one address, once the queue is half full
constexpr i32 assignEvery = 30'000;     // ms
constexpr i32 tickEvery = 300;          // ms, while there are uploads
constexpr f32 speedOfTransfer = 3.0F;   // KB/s that a new upload should get
constexpr f32 transferShare = 6.0F;     // KB/s of the line for each upload that may always run
constexpr u32 leastTransfers = 2;
constexpr f32 mostTransfers = 1e6F;

}  // namespace

bool SlotRule::canStart() const {
    const f32 spare = capacity - used - 0.1F * capacity;
    const u32 share = static_cast<u32>(std::clamp(capacity / transferShare, 0.0F, mostTransfers));
    const u32 always = std::max(leastTransfers, share);
    return active < always || speedOfTransfer * static_cast<f32>(slots + 1) < spare;
}

UploadPool::UploadPool(const PeerNeeds& needs) : needs_(needs) {}
UploadPool::~UploadPool() { clear(); }

bool UploadPool::canStartSlot() const {
    const f32 limit = needs_.core.preferences.userMaxUpF;
    SlotRule rule{limit != 0 ? limit : needs_.core.preferences.maxUpSpeed.get(),
                  needs_.core.preferences.curUpSpeed, slots_.count(), 0};
    for (LL<Upload>::Cursor c; const Upload* upload = replaceable_.next(c);) rule.used -= upload->speed;
    rule.active = rule.slots + static_cast<u32>(uploads_.size()) - replaceable_.count();
    return rule.canStart();
}

UploadSlot* UploadPool::slotOf(const Peer& peer) const {
    return findIn(slots_, [&](const UploadSlot& slot) { return slot.isFor(peer); });
}

UploadSlot* UploadPool::slotFor(const Peer& peer) const {
    UploadSlot* own = slotOf(peer);
    return own ? own : findIn(slots_, [&](const UploadSlot& slot) { return slot.wasTold(peer); });
}

void UploadPool::addSlot(std::unique_ptr<QueuedUser> user) {
    UploadSlot* slot = slots_.own(std::make_unique<UploadSlot>(needs_, *this, ++slotsMade_, std::move(user)));
    needs_.core.messages.wake();
    slot->tellPeer();
    needs_.ui.slotAdded(slot, orEmpty(slot->getName()));
}

void UploadPool::removeSlot(UploadSlot* slot) {
    const std::unique_ptr<UploadSlot> removed = slots_.take(slot);
    if (slot->isUnanswered()) called_.note(slot->getUser(), needs_.core.host.clock.ticks());
    needs_.ui.slotRemoved(slot);
}

bool UploadPool::isStale(const QueuedUser& user) const {
    return needs_.core.host.clock.ticks() - user.getInt(TAG_QTIME) > queueMemory;
}

// A user has one transfer at a time: on other connections he waits until it has ended.
QueuedUser* UploadPool::nextInLine() const {
    for (LL<QueuedUser>::Cursor c; QueuedUser* user = queue_.next(c);) {
        if (isStale(*user) || !hasUpload(*user)) return user;
    }
    return nullptr;
}

void UploadPool::assignSlots() {
    if (!canStartSlot()) return;
    while (QueuedUser* next = nextInLine()) {
        std::unique_ptr<QueuedUser> user = takeFromQueue(*next);
        if (isStale(*user) || !mayCall(*user)) continue;
        addSlot(std::move(user));
        break;
    }
}

// A user who didn't answer isn't called again, but can be told on a connection that exists.
bool UploadPool::mayCall(const QueuedUser& user) const {
    if (!called_.contains(user, needs_.core.host.clock.ticks())) return true;
    const i4_guard guard(needs_.peers);
    return findIn(needs_.peers, [&](const Peer& peer) { return peer.isKnown() && peer.sameUser(user); });
}

bool UploadPool::hasUpload(const UserMeta& user) const {
    return findIn(uploads_, [&](const Upload& upload) { return upload.isOf(user); });
}

QueuedUser* UploadPool::waitingAs(const UserMeta& user) const {
    return findIn(queue_, [&](const QueuedUser& other) { return isThisUser(other, user); });
}

void UploadPool::gotSlotRequest(Peer& peer) {
    auto user = std::make_unique<QueuedUser>(peer);
    user->setInt(TAG_QTIME, needs_.core.host.clock.ticks());
    i4_lock guard(lock_);
    if (findIn(uploads_, [&](const Upload& upload) { return upload.isPeer(peer); }) || slotOf(peer)) return;
    QueuedUser* waiting = waitingAs(*user);
    if (canStartSlot() && !hasUpload(*user)) {
        if (waiting) user->confirmAs(*takeFromQueue(*waiting));
        addSlot(std::move(user));
    } else if (waiting) {
        waiting->renew(*user);
    } else if (hasRoomFor(*user)) {
        enqueue(std::move(user));
    }
}

bool UploadPool::hasRoomFor(const QueuedUser& newcomer) {
    i32 ofConnection = 0;
    i32 ofAddress = 0;
    for (LL<QueuedUser>::Cursor c; const QueuedUser* user = queue_.next(c);) {
        ofConnection += user->asker == newcomer.asker;
        ofAddress += user->from == newcomer.from;
    }
    if (ofConnection >= placesOfConnection) return false;
    if (queueLength_ >= queueLimit / 2 && ofAddress >= placesOfAddress) return false;
    return queueLength_ < queueLimit || makeRoom();
}

// Removes the last unconfirmed user of the address that has the most places.
bool UploadPool::makeRoom() {
    std::map<u32, u32> places;
    for (LL<QueuedUser>::Cursor c; const QueuedUser* user = queue_.next(c);) ++places[user->from];
    QueuedUser* leaving = nullptr;
    for (LL<QueuedUser>::Cursor c; QueuedUser* user = queue_.next(c);) {
        if (user->isConfirmed()) continue;
        if (!leaving || places[user->from] >= places[leaving->from]) leaving = user;
    }
    return leaving && takeFromQueue(*leaving);
}

void UploadPool::enqueue(std::unique_ptr<QueuedUser> user) {
    queue_.own(std::move(user));
    ++queueLength_;
    needs_.core.messages.wake();
    checkInvariants();
}

std::unique_ptr<QueuedUser> UploadPool::takeFromQueue(QueuedUser& user) {
    std::unique_ptr<QueuedUser> taken = queue_.take(&user);
    --queueLength_;
    checkInvariants();
    return taken;
}

void UploadPool::gotCall(Peer& peer) {
    i4_lock guard(lock_);
    UploadSlot* slot = slotOf(peer);
    if (peer.hasAnswered()) {
        QueuedUser user(peer);
        called_.forget(user);
        if (QueuedUser* waiting = waitingAs(user)) waiting->hasAnswered = true;
    }
    if (!slot) return;
    // A user with a low ID calls because his server was asked to have him call.
    if (peer.hasAnswered() || isLowId(slot->getUser().id)) slot->answered();
    slot->tell(peer);
    needs_.core.log.printVerbose("UploadPool::gotCall(%s)\n", orEmpty(peer.getText().c_str()));
}

void UploadPool::gotPartRequest(i4_file& stream, Peer& peer) {
    const MD4Hash hash = MD4Hash::read(stream);
    u32 starts[3];
    u32 ends[3];
    for (u32& start : starts) start = stream.read_32();
    for (u32& end : ends) end = stream.read_32();
    bool isNew = false;
    const Ref<Upload> upload = uploadFor(hash, peer, isNew);
    if (!upload) return;
    upload->setRanges(starts, ends);
    if (isNew || upload->hasRunDry()) upload->sendNext();
}

// Returns the running upload of this file to this peer, or makes one from the peer's slot. Returns empty if
// the peer has neither, or if there is no such file; the peer is then told so.
Ref<Upload> UploadPool::uploadFor(const MD4Hash& hash, Peer& peer, bool& isNew) {
    Ref<Upload> upload;
    {
        i4_lock guard(lock_);
        if (Upload* running = findUpload(hash, peer)) return Ref<Upload>(running);
        UploadSlot* slot = slotFor(peer);
        if (!slot) {
            needs_.core.log.printVerbose("Invalid upload request\n");
            return {};
        }
        upload = slot->makeUpload(hash, peer);
        if (upload) {
            replaceOldest();
            // Ending one may have given the slot's place away, but not the slot itself.
            if (slot->usedBy(peer)) removeSlot(slot);
            needs_.ui.uploadAdded(upload.get());
            uploads_.push_back(upload);
            needs_.core.messages.wake();
            isNew = true;
        }
    }
    if (!upload) peer.noSuchFile(hash);
    return upload;
}

Upload* UploadPool::findUpload(const MD4Hash& hash, const Peer& peer) const {
    return findIn(uploads_,
                  [&](const Upload& upload) { return upload.hash() == hash && upload.isPeer(peer); });
}

// Ends the oldest replaceable upload, to make room for a new one.
void UploadPool::replaceOldest() {
    Upload* oldest = replaceable_.first();
    if (!oldest) return;
    needs_.core.log.printVerbose("Queueing: %s\n", orEmpty(oldest->peer().getText().c_str()));
    endLocked(*oldest);
}

void UploadPool::endUpload(Upload& upload) {
    i4_lock guard(lock_);
    endLocked(upload);
}

// The user goes back to the end of the queue.
void UploadPool::endLocked(Upload& upload) {
    upload.stop();
    const Ref<Upload> keep(&upload);
    if (!removeUpload(upload)) return;
    upload.peer().endSlot();
    auto user = std::make_unique<QueuedUser>(upload.peer());
    user->setInt(TAG_QTIME, needs_.core.host.clock.ticks());
    user->hasFetched = true;
    if (QueuedUser* waiting = waitingAs(*user)) {
        waiting->renew(*user);
    } else {
        enqueue(std::move(user));
    }
    needs_.ui.uploadRemoved(&upload);
    assignSlots();
}

bool UploadPool::removeUpload(Upload& upload) {
    replaceable_.remove(&upload);
    if (!removeFrom(uploads_, &upload)) return false;
    checkInvariants();
    return true;
}

void UploadPool::markReplaceable(Upload& upload) {
    i4_lock guard(lock_);
    if (!queue_.isEmpty() && holds(uploads_, &upload)) replaceable_.addUnique(&upload);
}

void UploadPool::stopUpload(const MD4Hash& hash, Peer& peer) {
    needs_.core.log.printVerbose("UploadPool::stopUpload(%s)\n", orEmpty(peer.getText().c_str()));
    i4_lock guard(lock_);
    if (Upload* upload = findUpload(hash, peer)) endLocked(*upload);
}

void UploadPool::peerGone(Peer& peer) {
    endAllOf(peer);
    i4_lock guard(lock_);
    for (LL<QueuedUser>::Cursor c; QueuedUser* user = queue_.next(c);) {
        if (user->asker == &peer) user->asker = nullptr;
    }
}

// The user goes away, and not to the queue.
void UploadPool::endAllOf(Peer& peer) {
    i4_lock guard(lock_);
    bool changed = false;
    while (UploadSlot* slot = findIn(slots_, [&](UploadSlot& other) { return other.leave(peer); })) {
        removeSlot(slot);
        changed = true;
    }
    while (Upload* upload = findIn(uploads_, [&](const Upload& other) { return other.isPeer(peer); })) {
        const Ref<Upload> keep(upload);
        upload->stop();
        removeUpload(*upload);
        needs_.ui.uploadRemoved(upload);
        changed = true;
    }
    if (changed) assignSlots();
}

void UploadPool::connectFailed(u32 ip, u16 port) {
    i4_lock guard(lock_);
    dropSlot(findIn(slots_, [&](const UploadSlot& slot) {
        return slot.getUser().id == ip && slot.getUser().port == port;
    }));
}

void UploadPool::callbackFailed(u32 serverIp, u32 clientId) {
    i4_lock guard(lock_);
    dropSlot(findIn(slots_, [&](const UploadSlot& slot) {
        return slot.getUser().id == clientId && slot.getUser().serverIp == serverIp;
    }));
}

void UploadPool::dropSlot(UploadSlot* slot) {
    if (!slot) return;
    removeSlot(slot);
    assignSlots();
}

void UploadPool::tick(i32 elapsedMs) {
    i4_lock guard(lock_);
    std::vector<UploadSlot*> over;
    for (LL<UploadSlot>::Cursor c; UploadSlot* slot = slots_.next(c);) {
        if (!slot->tick(elapsedMs)) over.push_back(slot);
    }
    for (UploadSlot* slot : over) removeSlot(slot);
    assignTimer_ += elapsedMs;
    f32 total = 0;
    std::vector<Upload*> silent;
    for (const Ref<Upload>& upload : uploads_) {
        const i32 ms = upload->ownTime(elapsedMs);
        upload->updateSpeed(ms);
        total += upload->speed;
        if (!upload->mayStayDry(ms)) silent.push_back(upload.get());
    }
    for (Upload* upload : silent) endLocked(*upload);
    needs_.core.preferences.curUpSpeed = total;
    if (total > needs_.core.preferences.maxUpSpeed) needs_.core.preferences.maxUpSpeed = total;
    if (!over.empty() || assignTimer_ > assignEvery) {
        assignSlots();
        assignTimer_ = 0;
    }
}

i32 UploadPool::untilDue() {
    i4_lock guard(lock_);
    if (!uploads_.empty()) return tickEvery;
    i32 due = std::numeric_limits<i32>::max();
    for (LL<UploadSlot>::Cursor c; const UploadSlot* slot = slots_.next(c);) {
        due = std::min(due, slot->untilDue());
    }
    if (!queue_.isEmpty()) due = std::min(due, assignEvery + 1 - assignTimer_);
    return std::max(due, 0);
}

void UploadPool::checkInvariants() const {
    if constexpr (debugBuild) {
        assert(queue_.count() == static_cast<u32>(queueLength_));
        for (LL<Upload>::Cursor c; [[maybe_unused]] const Upload* upload = replaceable_.next(c);) {
            assert(holds(uploads_, upload));
        }
    }
}

void UploadPool::clear() {
    i4_lock guard(lock_);
    uploads_.clear();
    deleteAll(queue_);
    deleteAll(slots_);
    replaceable_.clear();
    queueLength_ = 0;
}
