// ShareList, the directories whose files the user shares.
#pragma once

#include <vector>

#include "i4min/memory/mutex.h"
#include "i4min/string/string.h"

// share.dat has no header: a sequence of strings (u16 length, bytes) to its end. The incoming directory is
// always shared. Thread: any.
class ShareList {
  public:
    void load() EXCLUDES(lock_);
    void save() EXCLUDES(lock_);
    void copyTo(std::vector<i4_string>& out) const EXCLUDES(lock_);
    void addDir(const char* path) EXCLUDES(lock_);     // unless it is there
    void removeDir(const char* path) EXCLUDES(lock_);  // the first that equals it
    void setDirs(const std::vector<i4_string>& dirs) EXCLUDES(lock_);

  private:
    mutable i4_mutex lock_{LockRank::leaf};
    std::vector<i4_string> dirs_ GUARDED_BY(lock_);
};
