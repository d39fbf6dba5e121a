// UserList, a list of users: friend.met, and the answers to a search for users.
#pragma once

#include <array>

#include "meta/MetaList.h"
#include "meta/RecordIndex.h"
#include "meta/UserMeta.h"

// Thread: see MetaList. Look-ups go through an index by hash, so that the hash of a listed record changes
// through RecordList::change alone.
class UserList : public RecordList<UserMeta> {
  public:
    using RecordList<UserMeta>::RecordList;

    UserMeta* find(const MD4Hash& hash);  // the first of that hash, or null
    UserMeta* findUnsafe(const MD4Hash& hash) REQUIRES(this);

  protected:
    void indexAdd(Meta* record) override { byHash_.add(*static_cast<UserMeta*>(record)); }
    void indexRemove(Meta* record) override { byHash_.remove(*static_cast<UserMeta*>(record)); }
    void indexDrop() override { byHash_.drop(); }
    bool indexCovers(u32 records) const override { return byHash_.covers(records); }
    void indexChange(Meta* record, const std::function<void()>& change) override;

  private:
    using HashKey = std::array<u8, 16>;
    static HashKey hashOf(const UserMeta& user) { return user.hash.bytes; }

    RecordIndex<UserMeta, HashKey, &UserList::hashOf> byHash_;
};
