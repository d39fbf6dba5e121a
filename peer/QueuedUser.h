// QueuedUser, a user who waits for an upload slot, or holds one.
#pragma once

#include "meta/UserMeta.h"
#include "peer/Peer.h"

// The user's record, and what we know of whoever asked in that name.
// Thread: under UploadPool's lock.    Borrows: the connection, for comparisons alone, until it is gone.
class QueuedUser : public UserMeta {
  public:
    explicit QueuedUser(const Peer& peer)
        : from(peer.remoteIp()), asker(&peer), hasAnswered(peer.hasAnswered()) {
        peer.copyUser(*this);
    }

    // The same user has asked once more.
    void renew(const QueuedUser& asking) {
        from = asking.from;
        asker = asking.asker;
        confirmAs(asking);
        setInt(TAG_QTIME, asking.getInt(TAG_QTIME));
    }
    void confirmAs(const QueuedUser& other) {
        hasAnswered = hasAnswered || other.hasAnswered;
        hasFetched = hasFetched || other.hasFetched;
    }
    bool isConfirmed() const { return hasAnswered || hasFetched; }

    u32 from;           // the address that the request came from
    const Peer* asker;  // the connection that it came on; null when that is gone
    bool hasAnswered;   // we called the user, and reached him
    bool hasFetched = false;
};
