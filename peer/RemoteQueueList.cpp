#include "peer/RemoteQueueList.h"

#include <algorithm>

#include "meta/UserMeta.h"
#include "meta/address.h"
#include "peer/Peer.h"

namespace {

constexpr u32 remembered = 1'800'000;  // ms

}  // namespace

RemoteQueueList::~RemoteQueueList() = default;

template <class Matches>
void RemoteQueueList::removeEntry(Matches matches) {
    const i4_lock guard(lock_);
    const auto found =
        std::find_if(entries_.begin(), entries_.end(), [&](const auto& entry) { return matches(*entry); });
    if (found != entries_.end()) entries_.erase(found);
}

void RemoteQueueList::note(Peer& peer) {
    const u32 now = clock_.ticks();
    peer.requestSlot();
    UserMeta user;
    peer.copyUser(user);
    const i4_lock guard(lock_);
    const auto known = std::find_if(entries_.begin(), entries_.end(),
                                    [&](const auto& entry) { return isThisUser(*entry, user); });
    if (known != entries_.end()) {
        (*known)->stamp = now;
        return;
    }
    // Drop outdated entries: over months the list would grow without bound.
    std::erase_if(entries_, [&](const auto& entry) { return now - entry->stamp >= remembered; });
    entries_.push_back(copyOf(user));
    entries_.back()->stamp = now;
}

bool RemoteQueueList::isWaiting(const UserMeta& user) {
    if (isLowId(user.id)) return false;
    const i4_lock guard(lock_);
    const auto known = std::find_if(entries_.begin(), entries_.end(), [&](const auto& entry) {
        return entry->id == user.id && entry->port == user.port;
    });
    return known != entries_.end() && clock_.ticks() - (*known)->stamp < remembered;
}

void RemoteQueueList::release(Peer& peer) {
    UserMeta user;
    peer.copyUser(user);
    removeEntry([&](const UserMeta& other) { return isThisUser(other, user); });
    peer.releaseSlot();
}

void RemoteQueueList::forget(u32 serverIp, u32 clientId) {
    removeEntry([&](const UserMeta& other) { return other.serverIp == serverIp && other.id == clientId; });
}

void RemoteQueueList::forgetAddress(u32 ip, u16 port) {
    removeEntry([&](const UserMeta& other) { return other.id == ip && other.port == port; });
}

void RemoteQueueList::clear() {
    const i4_lock guard(lock_);
    entries_.clear();
}
