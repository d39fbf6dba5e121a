// ImporterList, all importers in the order in which they are asked.
#pragma once

#include <array>
#include <memory>

#include "import/Importer.h"

class Disk;
class i4_log;

// Owns the importers. Constant once it is made. Thread: the hash thread.
class ImporterList {
  public:
    ImporterList();

    // Fills `meta` with what can be said about the file: TAG_NAME and TAG_SIZE always, and what the first
    // importer that knows the file adds. Sets its path. False only if the file can't be opened: one that
    // can't be read through goes without its details. The path is taken exactly as it stands. The file has
    // 4,294,967,295 bytes at most.
    bool importFile(FileMeta& meta, Disk& disk, i4_log& log, const char* path, const char* name) const;

  private:
    std::array<std::unique_ptr<const Importer>, 6> importers_;
};
