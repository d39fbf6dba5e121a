// FilterList: the user's filter on search results, read from filters.txt.
#pragma once

#include "i4min/memory/mutex.h"
#include "server/Search.h"

class Disk;
class FileList;
class FileMeta;

// A file is filtered out if any of its texts holds any of the lines, whatever its case.
// Thread: any; each call takes lock_. Lock order: after the lock of the list that is filtered.
class FilterList {
  public:
    FilterList() = default;
    FilterList(const FilterList&) = delete;
    FilterList& operator=(const FilterList&) = delete;

    // Replaces the lines by those of the file, whose path is taken as it stands. A line counts up to its
    // 255th character; an empty one doesn't count. False where the file can't be read: nothing is then
    // filtered.
    bool load(Disk& disk, const char* path) EXCLUDES(lock_);
    bool matches(const FileMeta& file) const EXCLUDES(lock_);
    // Takes the files that match out of the list, which owns them, and destroys them.
    void filter(FileList& list) const EXCLUDES(lock_);

  private:
    bool matchesUnsafe(const FileMeta& file) const REQUIRES(lock_);

    mutable i4_mutex lock_{LockRank::filter};
    Search expression_ GUARDED_BY(lock_);  // each line, joined by OR; without a root it matches nothing
};
