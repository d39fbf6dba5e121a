#include "download/Verifier.h"

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

#include "meta/MD4.h"

namespace {

constexpr std::size_t mostWaiting = 64;  // parts
constexpr u32 pieceSize = 32 * 1024;     // bytes of each part at a time

bool readAt(i4_disk_file& file, u64 at, u8* to, u32 length) {
    for (u32 taken = 0; taken < length;) {
        const i64 got = file.readAt(at + taken, {to + taken, length - taken});
        if (got <= 0) return false;
        taken += static_cast<u32>(got);
    }
    return true;
}

// Hashes parts of one length side by side; `hashes` gets a digest for each that could be read.
void hashParts(const std::vector<PartToCheck>& parts, std::vector<std::optional<MD4Hash>>& hashes) {
    std::array<MD4, MD4::lanes> digests;
    std::vector<bool> readable(parts.size(), true);
    const u32 length = parts.front().end - parts.front().start;
    std::vector<u8> buffer(parts.size() * pieceSize);
    for (u32 at = 0; at < length;) {
        const u32 count = std::min(pieceSize, length - at);
        for (std::size_t i = 0; i < parts.size(); ++i) {
            u8* const to = buffer.data() + i * count;
            readable[i] = readable[i] && readAt(*parts[i].file, u64{parts[i].start} + at, to, count);
        }
        if (count % MD4::blockSize == 0 && parts.size() > 1) {
            MD4::updateEach({digests.data(), parts.size()}, buffer.data(), count);
        } else {
            for (std::size_t i = 0; i < parts.size(); ++i)
                digests[i].update({buffer.data() + i * count, count});
        }
        at += count;
    }
    for (std::size_t i = 0; i < parts.size(); ++i) {
        const MD4Hash hash = digests[i].finish();
        hashes.push_back(readable[i] ? std::optional(hash) : std::nullopt);
    }
}

// Nobody is judged by bytes that can't be read.
void addDigests(i4_disk_file& file, std::vector<GivenPiece>& pieces) {
    for (GivenPiece& piece : pieces) {
        if (!MD4Hash::compute(piece.digest, file, piece.start, piece.end)) return pieces.clear();
    }
}

CheckedPart outcomeOf(PartToCheck& part, const std::optional<MD4Hash>& hash) {
    using Outcome = CheckedPart::Outcome;
    if (!hash) return {part.part, Outcome::unreadable, {}};
    const bool passed = *hash == part.expected;
    std::vector<GivenPiece>& pieces = passed ? part.evidence : part.givers;
    addDigests(*part.file, pieces);
    return {part.part, passed ? Outcome::passed : Outcome::failed, std::move(pieces)};
}

}  // namespace

Verifier::~Verifier() { shutdown(); }

void Verifier::shutdown() {
    stop();
    std::deque<PartToCheck> forgotten;
    const i4_lock guard(lock_);
    forgotten.swap(waiting_);
}

bool Verifier::check(PartToCheck part) {
    {
        const i4_lock guard(lock_);
        if (waiting_.size() >= mostWaiting) return false;
        waiting_.push_back(std::move(part));
    }
    if (isOwnTurn()) return true;
    start();
    wake();
    return true;
}

bool Verifier::isIdle() const {
    const i4_lock guard(lock_);
    return waiting_.empty() && atWork_ == 0;
}

// The oldest, and those of the same length that wait with it.
std::vector<PartToCheck> Verifier::takeNext() {
    std::vector<PartToCheck> taken;
    const i4_lock guard(lock_);
    for (auto at = waiting_.begin(); at != waiting_.end() && taken.size() < MD4::lanes;) {
        if (!taken.empty() && at->end - at->start != taken.front().end - taken.front().start) {
            ++at;
            continue;
        }
        taken.push_back(std::move(*at));
        at = waiting_.erase(at);
    }
    atWork_ = taken.size();
    return taken;
}

Rest Verifier::run() {
    std::vector<PartToCheck> parts = takeNext();
    if (parts.empty()) return Rest::untilWoken();
    std::vector<std::optional<MD4Hash>> hashes;
    hashParts(parts, hashes);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        parts[i].tell(outcomeOf(parts[i], hashes[i]));
    }
    const i4_lock guard(lock_);
    atWork_ = 0;
    return Rest::none();
}
