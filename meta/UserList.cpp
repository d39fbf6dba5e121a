#include "meta/UserList.h"

UserMeta* UserList::find(const MD4Hash& hash) {
    const i4_guard guard(*this);
    return findUnsafe(hash);
}

UserMeta* UserList::findUnsafe(const MD4Hash& hash) {
    if (byHash_.startBuilding()) {
        for (Cursor c; UserMeta* user = next(c);) byHash_.add(*user);
    }
    return byHash_.first(hash.bytes, [&](const UserMeta& user) { return user.hash == hash; });
}

void UserList::indexChange(Meta* record, const std::function<void()>& change) {
    auto& user = *static_cast<UserMeta*>(record);
    const HashKey old = hashOf(user);
    change();
    byHash_.rekey(user, old);
}
