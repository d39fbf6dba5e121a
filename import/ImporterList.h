// ImporterList: all importers, in the order in which they are tried.
#pragma once

#include <array>
#include <memory>

#include "import/Importer.h"

class Disk;
class i4_log;

// Fills a file's record from its name and content.
// Thread: the hash thread. Owns: the importers. Constant after construction.
class ImporterList {
  public:
    ImporterList();

    // Sets TAG_NAME, TAG_SIZE and the path in `meta`, and the details that the first matching importer adds.
    // Returns false only if the file can't be opened; if it can't be read completely, the details are left
    // out. `path` is used as it is. The file must have at most 4,294,967,295 bytes.
    bool importFile(FileMeta& meta, Disk& disk, i4_log& log, const char* path, const char* name) const;

  private:
    std::array<std::unique_ptr<const Importer>, 6> importers_;
};
