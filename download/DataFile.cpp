#include "download/DataFile.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "core/UIInterface.h"

namespace {

constexpr std::size_t mostPieces = 16;

}  // namespace

bool DataFile::open(Disk& disk, const i4_string& path, u32 flags) {
    close();
    i4_lock guard(lock_);
    path_ = path;
    file_ = disk.open(path.c_str(), flags);
    return isOpen();
}

void DataFile::close() {
    i4_lock guard(lock_);
    writeUpTo(end_);
    file_.reset();
}

void DataFile::write(u64 at, std::shared_ptr<const u8> bytes, u32 length) {
    i4_lock guard(lock_);
    if (at != end_ || waiting_.size() == mostPieces) writeUpTo(end_);
    if (waiting_.empty()) start_ = end_ = at;
    waiting_.push_back({std::move(bytes), length});
    end_ += length;
    writeUpTo(end_ - end_ % blockSize);
}

void DataFile::flush() {
    i4_lock guard(lock_);
    writeUpTo(end_);
}

void DataFile::writeUpTo(u64 stop) {
    if (stop <= start_) return;
    std::array<i4_piece, mostPieces> pieces{};
    std::size_t count = 0;
    u64 at = start_;
    for (; at < stop; ++count) {
        const Piece& piece = waiting_[count];
        const std::size_t length = std::min<u64>(piece.length, stop - at);
        pieces[count] = {piece.bytes.get(), length};
        at += length;
    }
    noteOutcome(file_->writeAt(start_, {pieces.data(), count}), stop - start_);
    start_ = stop;
    // Of the last piece, some may lie behind.
    Piece& last = waiting_[count - 1];
    const u32 taken = static_cast<u32>(pieces[count - 1].size());
    if (taken < last.length) {
        last = {{last.bytes, last.bytes.get() + taken}, last.length - taken};
        --count;
    }
    waiting_.erase(waiting_.begin(), waiting_.begin() + static_cast<std::ptrdiff_t>(count));
}

// What lies behind the bytes that were written is lost.
void DataFile::noteOutcome(i64 written, u64 wanted) {
    const int error = written < 0 ? errno : ENOSPC;
    const bool failed = written != static_cast<i64>(wanted);
    const u64 done = static_cast<u64>(std::max<i64>(0, written));
    if (failed && !failed_) {
        log_.printLine("Not all written(%d,%d): %s: %s", static_cast<i32>(done), static_cast<i32>(wanted),
                       path_.c_str(), std::strerror(error));
    }
    if (failed) losses_.push_back({start_ + done, start_ + wanted, error});
    failed_ = failed;
}

std::vector<DataFile::Loss> DataFile::takeLosses() {
    i4_lock guard(lock_);
    return std::exchange(losses_, {});
}
