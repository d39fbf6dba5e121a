// StateFiles: loads and saves the files that keep a client's state across restarts.
#pragma once

#include <functional>

#include "core/UIInterface.h"
#include "i4min/file/Disk.h"
#include "meta/MetaList.h"

// Loads and saves lists, and prints an error with the file's name if that fails.
// Thread: any. Borrows: the disk and the log.
class StateFiles {
  public:
    StateFiles(Disk& disk, UIInterface& log) : disk_(disk), log_(log) {}

    // Adds the file's records to the list. A damaged file is reported in one line and set aside.
    LoadResult load(MetaList& list, const char* path);
    // Returns true if the new file is in place. A failure is printed in one line and keeps the old file.
    bool save(MetaList& list, const char* path);
    bool save(const char* path, const std::function<bool(i4_file&)>& write);
    // Reports a file that can't be read completely, and renames it.
    void setAside(const char* path);

  private:
    void reportUnsaved(const char* path, const std::string& reason);

    Disk& disk_;
    UIInterface& log_;
};
