// SearchResults: the results of the last search, as a user interface keeps them.
#pragma once

#include "meta/FileList.h"

// A list of file records of limited length.
// Thread: as MetaList. Owns: its records.
class SearchResults : public FileList {
  public:
    ~SearchResults() override { deleteAll(); }
    // Anyone can send results by UDP without end, so the list has a limit.
    bool isFull() const { return count() >= 10'000; }
    // Replaces the records with those of `list` and owns them from then on. The caller keeps the list object.
    void replaceBy(const FileList& list) {
        deleteAll();
        addAll(list);
    }
};
