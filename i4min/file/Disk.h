// Disk, the interface to files: the system's file systems, or a disk in the memory of a simulation.
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <span>
#include <string>

#include "i4min/file/file.h"
#include "i4min/file/filesystem.h"
#include "i4min/memory/types.h"

// Bytes to be written, one behind the other.
using i4_piece = std::span<const u8>;

// An open file. The operations declared here don't move the stream's position.
// Thread: one at a time, except readAt() and writeAt(), which may run on any.
// Errors: -1 or false, with the reason in errno.
class i4_disk_file : public i4_file {
  public:
    [[nodiscard]] virtual i64 readAt(u64 at, std::span<u8> to) = 0;  // bytes, 0 at the end; -1
    [[nodiscard]] virtual i64 writeAt(
        u64 at, std::span<const i4_piece> pieces) = 0;  // bytes, fewer on a full disk; -1
    [[nodiscard]] virtual bool sync() = 0;              // true when all of it is on the disk
    [[nodiscard]] virtual bool status(i4_file_status& out) = 0;
    // The byte can be read without waiting for the disk.
    virtual bool isCached(u64 at) = 0;
    // The file is going to be read from its beginning to its end.
    virtual void willReadAll() {}
    // Gives the file the mode, and where the process may do that the owner, of the one at the path.
    virtual void takeAccessOf(const char* path) = 0;
};

// A file system. Paths are used exactly as given. Thread: any.
// Errors: false or null, with the reason in errno. The result of what only cleans up, or makes a rename last
// through a crash, may be ignored.
class Disk {
  public:
    // Opens a file: for reading it must be there, for writing it is made with mode 0666 less the umask. Never
    // waits, also not for the other side of a FIFO.
    [[nodiscard]] virtual std::unique_ptr<i4_disk_file> open(const char* path, u32 flags) = 0;
    [[nodiscard]] virtual bool status(const char* path,
                                      i4_file_status& out) = 0;                 // of the file behind a link
    [[nodiscard]] virtual bool readLink(const char* path, i4_string& out) = 0;  // what a link says
    [[nodiscard]] virtual bool list(const char* path, i4_directory_list& out, bool withStatus) = 0;
    virtual bool makeDirectory(const char* path) = 0;
    virtual bool remove(const char* path) = 0;
    // Never replaces a file unless told so; EEXIST then, EXDEV for another file system.
    enum class Replace { no, yes };
    [[nodiscard]] virtual bool rename(const char* from, const char* to, Replace replace) = 0;
    // A file of its own in the directory, under a path by which it can be renamed or removed and that is
    // nobody else's.
    [[nodiscard]] virtual std::unique_ptr<i4_disk_file> openHidden(const char* directory,
                                                                   i4_string& path) = 0;
    // What was renamed in the directory stays so.
    virtual bool syncFolder(const char* path) = 0;
    // Bytes free to an ordinary user; i4_disk_free_unknown where they can't be told.
    virtual u64 freeSpace(const char* path) = 0;

    [[nodiscard]] bool exists(const char* path) {
        i4_file_status ignored;
        return status(path, ignored);
    }

    // Reserves a name that is about to be written to; false if somebody else has it.
    [[nodiscard]] bool claim(const std::string& name) {
        const std::lock_guard<std::mutex> guard(claimsLock_);
        return claims_.insert(name).second;
    }
    void unclaim(const std::string& name) {
        const std::lock_guard<std::mutex> guard(claimsLock_);
        claims_.erase(name);
    }

  protected:
    ~Disk() = default;

  private:
    std::mutex claimsLock_;
    std::set<std::string> claims_;
};
