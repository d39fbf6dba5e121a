// FileList, a list of files: known.met, what is shared, search results.
#pragma once

#include <compare>

#include "meta/FileMeta.h"
#include "meta/RecordIndex.h"

struct FileDetails {
    u32 size;
    u32 date;
    u64 name;  // its hash
    auto operator<=>(const FileDetails&) const = default;
};
FileDetails fileDetailsOf(const FileMeta& file);
using DetailsIndex = RecordIndex<FileMeta, FileDetails, fileDetailsOf>;

// Thread: see MetaList. Look-ups go through indexes by hash and by size, date and name.
class FileList : public IndexedList<FileMeta, HashIndex<FileMeta>, DetailsIndex> {
  public:
    using IndexedList::IndexedList;

    // True, and nothing is added, if a record of that hash is there.
    virtual bool addUnique(FileMeta* file);

    // Deletes each record whose hash a later one has too. A hash of zero is none.
    void deleteRepeated();

    // The first record of that hash, or null.
    FileMeta* find(const MD4Hash& hash);
    // The first record that matches, or null.
    FileMeta* find(u32 size, u32 date, const char* name);
    // For a caller that holds lock().
    FileMeta* findUnsafe(const MD4Hash& hash) REQUIRES(this);
    FileMeta* findUnsafe(u32 size, u32 date, const char* name) REQUIRES(this);
};
