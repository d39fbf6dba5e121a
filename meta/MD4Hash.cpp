#include "meta/MD4Hash.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <utility>

#include "app/UIInterface.h"
#include "i4min/file/file.h"
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

// Takes a file's bytes as they come and cuts them into parts.
class PartDigest {
  public:
    void update(const u8* bytes, std::size_t count) {
        while (count > 0) {
            const std::size_t length = std::min<std::size_t>(count, PARTSIZE - inPart_);
            digest_.update(bytes, length);
            inPart_ += static_cast<u32>(length);
            bytes += length;
            count -= length;
            if (inPart_ == PARTSIZE) endPart();
        }
    }
    // The hash of each part, the last of which may be empty.
    std::vector<MD4Hash> finish() {
        endPart();
        return std::move(parts_);
    }

  private:
    void endPart() {
        parts_.push_back(digest_.finish());
        inPart_ = 0;
    }

    MD4 digest_;
    u32 inPart_ = 0;
    std::vector<MD4Hash> parts_;
};

bool sameVersion(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

// Feeds the whole of an open regular file to the digest.
HashOutcome readWhole(int descriptor, PartDigest& digest, const GiveUp& giveUp, u64& size) {
    struct stat before {};
    struct stat after {};
    if (::fstat(descriptor, &before) != 0 || !S_ISREG(before.st_mode)) return HashOutcome::notOpened;
    ::posix_fadvise(descriptor, 0, 0, POSIX_FADV_SEQUENTIAL);
    const auto piece = std::make_unique_for_overwrite<u8[]>(pieceSize);
    const u64 expected = static_cast<u64>(before.st_size);
    for (size = 0;;) {
        if (giveUp && giveUp()) return HashOutcome::abandoned;
        const ssize_t got = ::read(descriptor, piece.get(), pieceSize);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return HashOutcome::unreadable;
        if (got == 0) break;
        size += static_cast<u64>(got);
        // A file that is written as fast as it is read would never end.
        if (size > expected) return HashOutcome::changed;
        digest.update(piece.get(), static_cast<std::size_t>(got));
    }
    if (::fstat(descriptor, &after) != 0) return HashOutcome::unreadable;
    return size == expected && sameVersion(before, after) ? HashOutcome::whole : HashOutcome::changed;
}

}  // namespace

MD4Hash MD4Hash::read(i4_file& stream) {
    MD4Hash hash;
    stream.readAll(hash.bytes.data(), streamSize);
    return hash;
}

bool MD4Hash::write(i4_file& stream) const {
    return stream.write(bytes.data(), streamSize) == static_cast<i32>(streamSize);
}

std::string MD4Hash::toText() const {
    char text[33];
    toText(text);
    return text;
}

void MD4Hash::toText(char (&out)[33]) const {
    static constexpr char digits[] = "0123456789abcdef";
    char* to = out;
    for (const u8 byte : bytes) {
        *to++ = digits[byte >> 4];
        *to++ = digits[byte & 15];
    }
    *to = '\0';
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
        theLog->printVerbose("MD4Hash::compute couldn't seek\n");
        return false;
    }
    const u32 length = std::min(end - start, pieceSize);
    const auto piece = std::make_unique_for_overwrite<u8[]>(length);
    MD4 digest;
    for (u32 left = end - start; left > 0;) {
        const u32 wanted = std::min(left, length);
        if (stream.read(piece.get(), wanted) != static_cast<i32>(wanted)) return false;
        digest.update(piece.get(), wanted);
        left -= wanted;
    }
    out = digest.finish();
    return true;
}

MD4Hash MD4Hash::ofParts(const std::vector<MD4Hash>& parts) {
    MD4 digest;
    for (const MD4Hash& part : parts) digest.update(part.bytes.data(), part.bytes.size());
    return digest.finish();
}

HashOutcome MD4Hash::computeFile(MD4Hash& out, const char* path, std::vector<MD4Hash>& parts,
                                 const GiveUp& giveUp, u64* size) {
    // Not blocking: a FIFO would hold the open until somebody writes to it.
    const int descriptor = ::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) return HashOutcome::notOpened;
    i4_unix_file_class file(descriptor);
    PartDigest digest;
    u64 hashed = 0;
    const HashOutcome outcome = readWhole(descriptor, digest, giveUp, hashed);
    if (outcome != HashOutcome::whole) return outcome;
    parts = digest.finish();
    if (parts.size() == 1) {
        out = parts.front();
        parts.clear();
    } else {
        out = ofParts(parts);
    }
    if (size) *size = hashed;
    return HashOutcome::whole;
}
