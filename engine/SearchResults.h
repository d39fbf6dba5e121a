// SearchResults, the results of the last search that a user interface keeps.
#pragma once

#include "meta/FileList.h"

// Thread: see MetaList.    Owns: its records.
class SearchResults : public FileList {
  public:
    ~SearchResults() override { deleteAll(); }
    // Results by datagram come from anyone, and without end: no more than so many are kept.
    bool isFull() const { return count() >= 10'000; }
    // Takes over the records of a new search. The list that brought them stays its caller's.
    void replaceBy(const FileList& list) {
        deleteAll();
        addAll(list);
    }
};
