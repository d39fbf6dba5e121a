// CalledUsers, the users who were called for a slot and didn't answer.
#pragma once

#include <algorithm>
#include <vector>

#include "meta/UserMeta.h"

// A user may claim anybody's address. One who doesn't answer there isn't called again for a while.
// Thread: under UploadPool's lock.
class CalledUsers {
  public:
    void note(const UserMeta& user, u32 now) {
        std::erase_if(entries_, [&](const Entry& entry) { return now - entry.stamp > memory; });
        if (entries_.size() == most) entries_.erase(entries_.begin());
        entries_.push_back({user.id, user.serverIp, user.port, now});
    }
    void forget(const UserMeta& user) {
        std::erase_if(entries_, [&](const Entry& entry) { return entry.isAt(user); });
    }
    bool contains(const UserMeta& user, u32 now) const {
        return std::any_of(entries_.begin(), entries_.end(), [&](const Entry& entry) {
            return entry.isAt(user) && now - entry.stamp <= memory;
        });
    }

  private:
    static constexpr u32 memory = 2'700'000;  // ms
    static constexpr std::size_t most = 1000;
    struct Entry {
        u32 id;
        u32 serverIp;
        u16 port;
        u32 stamp;
        // A low ID counts at its server alone.
        bool isAt(const UserMeta& user) const {
            return id == user.id && port == user.port && (!isLowId(id) || serverIp == user.serverIp);
        }
    };
    std::vector<Entry> entries_;  // oldest first
};
