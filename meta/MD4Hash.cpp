#include "meta/MD4Hash.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <utility>

#include "i4min/file/Disk.h"
#include "meta/MD4.h"

namespace {

// Large enough that a read's own cost vanishes, small enough to stay in the processor's cache.
constexpr u32 pieceSize = 256 * 1024;

std::optional<u8> digit(char c) {
    if (c >= '0' && c <= '9') return static_cast<u8>(c - '0');
    const char lower = static_cast<char>(c | 0x20);
    if (lower >= 'a' && lower <= 'f') return static_cast<u8>(lower - 'a' + 10);
    return std::nullopt;
}

// Hashes an open regular file, each part on its own. Parts that lie in the system's cache are taken side by
// side, which saves most of the work. What must come from the disk is read in order, as disks like it.
class FileHasher {
  public:
    FileHasher(i4_disk_file& file, const GiveUp& giveUp) : file_(file), giveUp_(giveUp) {}
    // Once. After `whole`, parts() has the hash of each part, the last of which may be empty.
    HashOutcome hash();
    u64 size() const { return done_; }
    std::vector<MD4Hash>& parts() { return parts_; }

  private:
    // What is in the way of going on; `whole` for nothing.
    HashOutcome hashOne();
    HashOutcome hashEach(std::size_t count);
    HashOutcome read(u64 at, u8* to, u32 length, u32& got) const;
    bool isCached(std::size_t count) const;
    bool isStopped() const { return giveUp_ && giveUp_(); }

    i4_disk_file& file_;
    const GiveUp& giveUp_;
    const std::unique_ptr<u8[]> piece_ = std::make_unique_for_overwrite<u8[]>(pieceSize);
    u64 expected_ = 0;
    u64 done_ = 0;
    bool ended_ = false;
    std::vector<MD4Hash> parts_;
};

HashOutcome FileHasher::hash() {
    i4_file_status before;
    i4_file_status after;
    if (!file_.status(before) || before.kind != i4_file_kind::regular) return HashOutcome::notOpened;
    file_.willReadAll();
    expected_ = before.size;
    while (!ended_) {
        const std::size_t count = std::min<u64>((expected_ - done_) / PARTSIZE, MD4::lanes);
        const HashOutcome outcome = count > 1 && isCached(count) ? hashEach(count) : hashOne();
        if (outcome != HashOutcome::whole) return outcome;
    }
    if (!file_.status(after)) return HashOutcome::unreadable;
    return done_ == expected_ && before.isSameVersion(after) ? HashOutcome::whole : HashOutcome::changed;
}

// One part, or what there is of it up to the file's end.
HashOutcome FileHasher::hashOne() {
    MD4 digest;
    for (u32 taken = 0; taken < PARTSIZE && !ended_;) {
        if (isStopped()) return HashOutcome::abandoned;
        u32 got = 0;
        const HashOutcome outcome = read(done_, piece_.get(), std::min(pieceSize, PARTSIZE - taken), got);
        if (outcome != HashOutcome::whole) return outcome;
        digest.update({piece_.get(), got});
        taken += got;
        done_ += got;
        ended_ = got == 0;
        // A file that is written as fast as it is read would never end.
        if (done_ > expected_) return HashOutcome::changed;
    }
    parts_.push_back(digest.finish());
    return HashOutcome::whole;
}

// So many whole parts side by side.
HashOutcome FileHasher::hashEach(std::size_t count) {
    std::array<MD4, MD4::lanes> digests;
    u32 length = 0;
    for (u32 at = 0; at < PARTSIZE; at += length) {
        if (isStopped()) return HashOutcome::abandoned;
        length = std::min<u32>(pieceSize / MD4::lanes, PARTSIZE - at);
        for (std::size_t i = 0; i < count; ++i) {
            for (u32 taken = 0, got = 0; taken < length; taken += got) {
                const HashOutcome outcome = read(done_ + i * PARTSIZE + at + taken,
                                                 piece_.get() + i * length + taken, length - taken, got);
                if (outcome != HashOutcome::whole) return outcome;
                if (got == 0) return HashOutcome::changed;
            }
        }
        MD4::updateEach({digests.data(), count}, piece_.get(), length);
    }
    for (std::size_t i = 0; i < count; ++i) parts_.push_back(digests[i].finish());
    done_ += count * PARTSIZE;
    return HashOutcome::whole;
}

// Reads up to `length` bytes; `got` is 0 at the end.
HashOutcome FileHasher::read(u64 at, u8* to, u32 length, u32& got) const {
    const i64 result = file_.readAt(at, {to, length});
    if (result < 0) return HashOutcome::unreadable;
    got = static_cast<u32>(result);
    return HashOutcome::whole;
}

// Whether the beginnings of the next parts can be read without waiting for the disk.
bool FileHasher::isCached(std::size_t count) const {
    for (std::size_t i = 0; i < count; ++i) {
        if (!file_.isCached(done_ + i * PARTSIZE)) return false;
    }
    return true;
}

}  // namespace

MD4Hash MD4Hash::read(i4_file& stream) {
    MD4Hash hash;
    stream.readAll(hash.bytes);
    return hash;
}

bool MD4Hash::write(i4_file& stream) const { return stream.writeAll(bytes); }

std::string MD4Hash::toText() const {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const u8 byte : bytes) {
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

bool MD4Hash::fromText(const char* text) { return text && fromText(std::string_view(text)); }

bool MD4Hash::fromText(std::string_view text) {
    MD4Hash read;
    if (text.size() != 2 * read.bytes.size()) return false;
    for (std::size_t i = 0; i < read.bytes.size(); ++i) {
        const std::optional<u8> high = digit(text[2 * i]);
        const std::optional<u8> low = digit(text[2 * i + 1]);
        if (!high || !low) return false;
        read.bytes[i] = static_cast<u8>(*high << 4 | *low);
    }
    *this = read;
    return true;
}

bool MD4Hash::compute(MD4Hash& out, i4_file& stream, u32 start, u32 end) {
    if (end < start) return false;
    if (stream.seek(start) != start) {
        stream.tell(i4_log::Tone::verbose, "MD4Hash::compute couldn't seek\n");
        return false;
    }
    const u32 length = std::min(end - start, pieceSize);
    const auto piece = std::make_unique_for_overwrite<u8[]>(length);
    MD4 digest;
    for (u32 left = end - start; left > 0;) {
        const u32 wanted = std::min(left, length);
        if (stream.read({piece.get(), wanted}) != static_cast<i32>(wanted)) return false;
        digest.update({piece.get(), wanted});
        left -= wanted;
    }
    out = digest.finish();
    return true;
}

MD4Hash MD4Hash::ofParts(const std::vector<MD4Hash>& parts) {
    MD4 digest;
    for (const MD4Hash& part : parts) digest.update(part.bytes);
    return digest.finish();
}

HashOutcome MD4Hash::computeFile(MD4Hash& out, Disk& disk, const char* path, std::vector<MD4Hash>& parts,
                                 const GiveUp& giveUp, u64* size) {
    const std::unique_ptr<i4_disk_file> file = disk.open(path, I4_FILE_READ);
    if (!file) return HashOutcome::notOpened;
    FileHasher hasher(*file, giveUp);
    const HashOutcome outcome = hasher.hash();
    if (outcome != HashOutcome::whole) return outcome;
    parts = std::move(hasher.parts());
    if (parts.size() == 1) {
        out = parts.front();
        parts.clear();
    } else {
        out = ofParts(parts);
    }
    if (size) *size = hasher.size();
    return HashOutcome::whole;
}
