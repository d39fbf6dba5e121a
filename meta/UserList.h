// UserList, a list of users: friend.met, and the answers to a search for users.
#pragma once

#include "meta/RecordIndex.h"
#include "meta/UserMeta.h"

// Thread: see MetaList. Look-ups go through an index by hash.
class UserList : public IndexedList<UserMeta, HashIndex<UserMeta>> {
  public:
    using IndexedList::IndexedList;

    // The first record of that hash, or null.
    UserMeta* find(const MD4Hash& hash) {
        const i4_guard guard(*this);
        return findUnsafe(hash);
    }
    UserMeta* findUnsafe(const MD4Hash& hash) REQUIRES(this) {
        return firstOf<HashIndex<UserMeta>>(hash.bytes,
                                            [&](const UserMeta& user) { return user.hash == hash; });
    }
};
