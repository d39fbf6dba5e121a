#include "peer/RemoteQueueList.h"

#include "meta/UserMeta.h"
#include "meta/address.h"
#include "peer/Peer.h"

namespace {

constexpr u32 remembered = 1'800'000;  // ms

template <class Matches>
void removeEntry(LLsafe<UserMeta>& entries, Matches matches) {
    const i4_guard guard(entries);
    UserMeta* entry = findIn(entries, matches);
    if (!entry) return;
    entries.removeUnsafe(entry);
    delete entry;
}

}  // namespace

RemoteQueueList::~RemoteQueueList() { clear(); }

void RemoteQueueList::note(Peer& peer) {
    const u32 now = clock_.ticks();
    peer.requestSlot();
    UserMeta user;
    peer.copyUser(user);
    const i4_guard guard(entries_);
    UserMeta* entry = findIn(entries_, [&](const UserMeta& other) { return isThisUser(other, user); });
    if (!entry) {
        // Those that make no difference any more go: over the months there is no end of users.
        const auto isPast = [&](const UserMeta& other) { return now - other.stamp >= remembered; };
        while (UserMeta* past = findIn(entries_, isPast)) {
            entries_.removeUnsafe(past);
            delete past;
        }
        entry = copyOf(user).release();
        entries_.addUnsafe(entry);
    }
    entry->stamp = now;
}

bool RemoteQueueList::isWaiting(const UserMeta& user) {
    if (isLowId(user.id)) return false;
    const i4_guard guard(entries_);
    const UserMeta* entry = findIn(
        entries_, [&](const UserMeta& other) { return other.id == user.id && other.port == user.port; });
    return entry && clock_.ticks() - entry->stamp < remembered;
}

void RemoteQueueList::release(Peer& peer) {
    UserMeta user;
    peer.copyUser(user);
    removeEntry(entries_, [&](const UserMeta& other) { return isThisUser(other, user); });
    peer.releaseSlot();
}

void RemoteQueueList::forget(u32 serverIp, u32 clientId) {
    removeEntry(entries_,
                [&](const UserMeta& other) { return other.serverIp == serverIp && other.id == clientId; });
}

void RemoteQueueList::forgetAddress(u32 ip, u16 port) {
    removeEntry(entries_, [&](const UserMeta& other) { return other.id == ip && other.port == port; });
}

void RemoteQueueList::clear() {
    const i4_guard guard(entries_);
    for (LL<UserMeta>::Cursor c; const UserMeta* entry = entries_.next(c);) delete entry;
    entries_.clearUnsafe();
}
