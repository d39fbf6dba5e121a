// ShareList, the directories whose files the user shares.
#pragma once

#include <vector>

#include "i4min/memory/mutex.h"
#include "i4min/string/string.h"

class i4_file;
struct Core;

// share.dat has neither header nor count: a path each, to its end.
//
//     bytes  field
//     2      length n, u16
//     n      a directory's path
//
// The incoming directory is always shared: load() and setDirs() put it behind the others if it isn't there.
// Thread: any.
class ShareList {
  public:
    explicit ShareList(Core& core) : core_(core) {}

    // From Preferences::sharePath, instead of what was here. Of a file that doesn't read to its end, what was
    // read stays, and the file is set aside. A missing one is silent.
    void load() EXCLUDES(lock_);
    // A failure is told in one line; the old file then stays.
    void save() const EXCLUDES(lock_);
    void copyTo(std::vector<i4_string>& out) const EXCLUDES(lock_);  // behind what is there
    void addDir(const char* path) EXCLUDES(lock_);                   // unless it is there
    void removeDir(const char* path) EXCLUDES(lock_);                // the first that equals it
    void setDirs(const std::vector<i4_string>& dirs) EXCLUDES(lock_);

    // The bytes of share.dat. Reading appends; false where they end too early.
    static bool readPaths(i4_file& stream, std::vector<i4_string>& out);
    static void writePaths(i4_file& stream, const std::vector<i4_string>& paths);

  private:
    Core& core_;
    mutable i4_mutex lock_{LockRank::leaf};
    std::vector<i4_string> dirs_ GUARDED_BY(lock_);
};
