// DataFile, the data file of a download, which is written in blocks.
#pragma once

#include <memory>
#include <vector>

#include "i4min/file/Disk.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"

class UIInterface;

// What arrives in packets, one behind the other, waits in the packets' own memory until it reaches the end of
// a block of the file: the system takes a few large pieces with a fraction of the work. A failure, most
// likely a full disk, is said once until a write succeeds again, and its range is kept for takeLosses().
// Thread: any; but open(), close(), isOpen() and stream() one at a time.
// Owns: its descriptor, and the memory of what waits.
class DataFile {
  public:
    static constexpr u32 blockSize = 64 * 1024;

    explicit DataFile(UIInterface& log) : log_(log) {}
    ~DataFile() { close(); }

    // False, with the system's error, when it can't be opened. `flags` are those of Disk::open.
    bool open(Disk& disk, const i4_string& path, u32 flags) EXCLUDES(lock_);
    void close() EXCLUDES(lock_);  // writes what waits
    bool isOpen() const { return file_ != nullptr; }
    // For reading what has been written; only while the file is open.
    i4_file& stream() const { return *file_; }

    // Writes, sooner or later, `length` bytes at `at`; not closed meanwhile. The memory stays as it is as
    // long as this file holds it.
    void write(u64 at, std::shared_ptr<const u8> bytes, u32 length) EXCLUDES(lock_);
    void flush() EXCLUDES(lock_);  // writes what waits
    // The ranges that were to be written since the last call and weren't.
    struct Loss {
        u64 start;
        u64 end;
        int error;  // the system's
    };
    std::vector<Loss> takeLosses() EXCLUDES(lock_);

  private:
    struct Piece {
        std::shared_ptr<const u8> bytes;
        u32 length;
    };
    void writeUpTo(u64 stop) REQUIRES(lock_);
    void noteOutcome(i64 written, u64 wanted) REQUIRES(lock_);

    UIInterface& log_;
    i4_mutex lock_{LockRank::dataFile};
    std::unique_ptr<i4_disk_file> file_;
    i4_string path_;
    std::vector<Piece> waiting_ GUARDED_BY(lock_);  // one behind the other
    u64 start_ GUARDED_BY(lock_) = 0;               // the range of what waits
    u64 end_ GUARDED_BY(lock_) = 0;
    bool failed_ GUARDED_BY(lock_) = false;  // and it was said
    std::vector<Loss> losses_ GUARDED_BY(lock_);
};
