// UserMeta, what is said about a user.
#pragma once

#include "meta/MD4Hash.h"
#include "meta/Meta.h"
#include "meta/address.h"

// A record of a user; its name is TAG_NAME. Thread, ownership and errors: see Meta.
//
//     bytes  disk form                         bytes  network form
//     4      id, u32; 0 for a low ID           16     hash
//     2      port, u16; 0 for a low ID         4      id, u32
//     16     hash                              2      port, u16
//     ...    the record, see Meta              ...    the record, see Meta
class UserMeta : public Meta {
  public:
    [[nodiscard]] bool toNetwork(i4_file& file) const override;
    [[nodiscard]] bool fromNetwork(i4_file& file) override;
    [[nodiscard]] bool toDisk(i4_file& file) override;
    [[nodiscard]] bool fromDisk(i4_file& file) override;
    u32 byteSize() const override { return Meta::byteSize() + 22; }
    // The tags, and of another UserMeta id, serverIp, port, serverPort and hash.
    void copyFrom(const Meta* other) override;

    const char* getName() const { return getText(TAG_NAME); }  // null if there is none
    void setName(const char* text) { setText(TAG_NAME, text); }
    // By a high ID, else by ID and server, else by a known hash.
    bool sameUser(const UserMeta* other) const;

    u32 id = 0;        // the address or, if isLowId(), a number that the user's server gave out
    u32 serverIp = 0;  // of the user's server; in no stream
    u16 port = 0;
    u16 serverPort = 0;   // in no stream
    MD4Hash hash;         // the user's identity, all zero if unknown
    u32 stamp = 0;        // for the lists that keep users; in no stream, and not copied
    u32 friendState = 0;  // the same
};

// Whether an entry of a queue is the one of this user: by the user hash where it is known, else by sameUser.
inline bool isThisUser(const UserMeta& entry, const UserMeta& user) {
    return user.hash.isZero() ? entry.sameUser(&user) : entry.hash == user.hash;
}
