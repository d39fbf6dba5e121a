// SourceAccounts, who gave which bytes of a download, and what came of it.
#pragma once

#include <map>
#include <vector>

#include "download/RangeMap.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"
#include "meta/MD4Hash.h"

class UserMeta;

// No account.
inline constexpr u32 noAccount = 0xFFFFFFFF;

// One user who gave bytes of the file, over all of his connections.
struct SourceAccount {
    MD4Hash hash;  // zero while it isn't known
    u32 id = 0;
    u16 port = 0;
    i4_string name{nullptr};
    u64 delivered = 0;  // bytes that were written
    u64 verified = 0;   // bytes in parts that passed
    u64 spoiled = 0;    // bytes in parts that failed
    u64 unasked = 0;    // bytes that nobody had asked for
    u32 failedParts = 0;
    bool isProven = false;  // some of its bytes passed since the last part that failed
    bool isOut = false;     // it gave wrong bytes

    bool isSuspect() const { return failedParts > 0 && !isProven; }
};

// Bytes that one source gave in one go. The digest is theirs, where one was computed.
struct GivenPiece {
    u32 start;
    u32 end;
    u32 account;
    MD4Hash digest;
};

// A source that gave a whole part which failed its hash has lied. Where several gave a part that failed, the
// digests of their pieces are kept: once the part has passed, they tell who gave other bytes than the right
// ones.
// Thread: under Download's lock.
class SourceAccounts {
  public:
    void setSize(u32 fileSize) { given_.reset(fileSize, noAccount); }
    // The account of this user, or noAccount.
    u32 find(const UserMeta& user) const;
    // The same; opens one where there is none.
    u32 idOf(const UserMeta& user);
    SourceAccount& operator[](u32 account) { return accounts_[account]; }
    // How many users gave wrong bytes so far.
    u32 outCount() const;

    void gave(u32 account, u32 start, u32 end);
    void forget(u32 part);
    // Who gave what of this part, in order.
    std::vector<GivenPiece> giversOf(u32 part) const;
    // The pieces of this part that were kept when it failed.
    std::vector<GivenPiece> evidenceOf(u32 part) const;

    // The part passed. `evidence` has the pieces of evidenceOf() with the digests of the right bytes. The
    // result is who gave others.
    std::vector<u32> passed(u32 part, const std::vector<GivenPiece>& evidence);
    // The part of `length` bytes failed. `pieces` has those of giversOf() with their digests. The result is
    // who gave all of it.
    std::vector<u32> failed(u32 part, u32 length, const std::vector<GivenPiece>& pieces);

  private:
    std::vector<SourceAccount> accounts_;
    RangeMap<u32> given_;  // the accounts of who gave what is not verified
    std::map<u32, std::vector<GivenPiece>> evidence_;
};
