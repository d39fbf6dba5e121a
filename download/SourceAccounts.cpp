#include "download/SourceAccounts.h"

#include <algorithm>

#include "meta/FileMeta.h"
#include "meta/UserMeta.h"

namespace {

constexpr std::size_t mostEvidence = 1000;  // pieces of a part

// Two sources with one address are two users where both tell who they are.
bool isSame(const SourceAccount& account, const UserMeta& user) {
    if (!account.hash.isZero() && !user.hash.isZero()) return account.hash == user.hash;
    return account.id == user.id && account.port == user.port;
}

}  // namespace

u32 SourceAccounts::find(const UserMeta& user) const {
    const auto found = std::find_if(accounts_.begin(), accounts_.end(),
                                    [&](const SourceAccount& account) { return isSame(account, user); });
    return found == accounts_.end() ? noAccount : static_cast<u32>(found - accounts_.begin());
}

u32 SourceAccounts::idOf(const UserMeta& user) {
    u32 id = find(user);
    if (id == noAccount) {
        id = static_cast<u32>(accounts_.size());
        accounts_.emplace_back();
    }
    SourceAccount& account = accounts_[id];
    if (!user.hash.isZero()) account.hash = user.hash;
    account.id = user.id;
    account.port = user.port;
    account.name = user.getName();
    return id;
}

u32 SourceAccounts::outCount() const {
    return static_cast<u32>(std::count_if(accounts_.begin(), accounts_.end(),
                                          [](const SourceAccount& account) { return account.isOut; }));
}

void SourceAccounts::gave(u32 account, u32 start, u32 end) {
    accounts_[account].delivered += end - start;
    given_.set(start, end, account);
}

std::vector<GivenPiece> SourceAccounts::giversOf(u32 part) const {
    std::vector<GivenPiece> pieces;
    const i64 start = i64{part} * PARTSIZE;
    const i64 end = start + PARTSIZE;
    for (const auto& run : given_.runs(start, end)) {
        if (run.value == noAccount) continue;
        pieces.push_back({static_cast<u32>(std::max(start, run.start)),
                          static_cast<u32>(std::min(end, run.end)),
                          run.value,
                          {}});
    }
    return pieces;
}

std::vector<GivenPiece> SourceAccounts::evidenceOf(u32 part) const {
    const auto found = evidence_.find(part);
    return found == evidence_.end() ? std::vector<GivenPiece>() : found->second;
}

void SourceAccounts::forget(u32 part) {
    const i64 start = i64{part} * PARTSIZE;
    given_.set(start, start + PARTSIZE, noAccount);
}

std::vector<u32> SourceAccounts::passed(u32 part, const std::vector<GivenPiece>& evidence) {
    for (const GivenPiece& piece : giversOf(part)) {
        accounts_[piece.account].verified += piece.end - piece.start;
        accounts_[piece.account].isProven = true;
    }
    forget(part);
    std::vector<u32> liars;
    const std::vector<GivenPiece> kept = evidenceOf(part);
    for (std::size_t i = 0; i < kept.size() && i < evidence.size(); ++i) {
        SourceAccount& account = accounts_[kept[i].account];
        const bool right = kept[i].digest == evidence[i].digest;
        account.isProven = account.isProven || right;
        if (right || account.isOut) continue;
        account.isOut = true;
        liars.push_back(kept[i].account);
    }
    evidence_.erase(part);
    return liars;
}

std::vector<u32> SourceAccounts::failed(u32 part, u32 length, const std::vector<GivenPiece>& pieces) {
    forget(part);
    std::vector<u32> givers;
    u32 bytes = 0;
    for (const GivenPiece& piece : pieces) {
        bytes += piece.end - piece.start;
        accounts_[piece.account].spoiled += piece.end - piece.start;
        if (std::find(givers.begin(), givers.end(), piece.account) == givers.end()) {
            givers.push_back(piece.account);
        }
    }
    for (const u32 giver : givers) {
        ++accounts_[giver].failedParts;
        accounts_[giver].isProven = false;
    }
    // Who gave only some of it may be honest. What was here before this run was given by somebody else.
    if (givers.size() != 1 || bytes != length) {
        std::vector<GivenPiece>& kept = evidence_[part];
        if (kept.size() < mostEvidence) kept.insert(kept.end(), pieces.begin(), pieces.end());
        return {};
    }
    accounts_[givers.front()].isOut = true;
    return givers;
}
