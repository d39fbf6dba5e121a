// RemoteQueueList: the uploaders in whose queues this client waits.
#pragma once

#include <memory>
#include <vector>

#include "i4min/memory/mutex.h"
#include "i4min/memory/types.h"
#include "i4min/threads/Clock.h"

class Peer;
class UserMeta;

// Remembers whom we asked for a slot and when, so that the same client isn't asked again at once.
// Thread: any. Owns: its entries.
class RemoteQueueList {
  public:
    explicit RemoteQueueList(const Clock& clock) : clock_(clock) {}
    ~RemoteQueueList();
    void note(Peer& peer);  // asks the peer for a slot and records the time
    // True if the user was asked within the last 30 minutes; false for a low ID.
    bool isWaiting(const UserMeta& user);
    void release(Peer& peer);  // gives the slot back, with or without an entry
    void forget(u32 serverIp, u32 clientId);
    void forgetAddress(u32 ip, u16 port);
    void clear();

  private:
    const Clock& clock_;
    template <class Matches>
    void removeEntry(Matches matches) EXCLUDES(lock_);

    i4_mutex lock_{LockRank::remoteQueue};
    std::vector<std::unique_ptr<UserMeta>> entries_ GUARDED_BY(lock_);
};
