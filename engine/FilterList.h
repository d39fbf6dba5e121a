// FilterList: the user's filter on search results, read from filters.txt.
#pragma once

#include "i4min/memory/mutex.h"
#include "server/Search.h"

class Disk;
class FileList;
class FileMeta;

// A file matches if any of its text tags contains any of the filter's lines, ignoring case.
// Thread: any; each call takes lock_. Lock order: after the lock of the list that is filtered.
class FilterList {
  public:
    FilterList() = default;
    FilterList(const FilterList&) = delete;
    FilterList& operator=(const FilterList&) = delete;

    // Replaces the filter's lines with those of the file. `path` is used as it is. Lines are cut to 255
    // characters; empty lines are ignored. Returns false if the file can't be read; nothing is filtered then.
    bool load(Disk& disk, const char* path) EXCLUDES(lock_);
    bool matches(const FileMeta& file) const EXCLUDES(lock_);
    // Removes the matching files from the list and destroys them. The list must own them.
    void filter(FileList& list) const EXCLUDES(lock_);

  private:
    bool matchesUnsafe(const FileMeta& file) const REQUIRES(lock_);

    mutable i4_mutex lock_{LockRank::filter};
    Search expression_ GUARDED_BY(lock_);  // all lines joined by OR; matches nothing without a root
};
