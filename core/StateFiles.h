// StateFiles, the files in which a client keeps what it knows over a restart.
#pragma once

#include <functional>

#include "core/UIInterface.h"
#include "i4min/file/Disk.h"
#include "meta/MetaList.h"

// Reads and saves them, and tells the user what went wrong. Thread: any.
class StateFiles {
  public:
    StateFiles(Disk& disk, UIInterface& log) : disk_(disk), log_(log) {}

    // Adds what the file holds to the list. A damaged file is told in one line and set aside.
    LoadResult load(MetaList& list, const char* path);
    // On a failure, which is told in one line, the old file stays. True when the new one is in place.
    bool save(MetaList& list, const char* path);
    bool save(const char* path, const std::function<bool(i4_file&)>& write);
    // Names a file that doesn't read whole, and moves it out of the way.
    void setAside(const char* path);

  private:
    void tellUnsaved(const char* path, const std::string& reason);

    Disk& disk_;
    UIInterface& log_;
};
