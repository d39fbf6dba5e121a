// PartialList carries the records of unfinished downloads between disk and the running Download objects.
#pragma once

#include <memory>
#include <vector>

#include "meta/FileList.h"

struct Core;

// Empty between its uses. Owns its records until takeAll() or saveToDir().
// Thread: MessageQ's at start, DLPool's for its saves, the entry thread at the end.
class PartialList : public FileList {
  public:
    explicit PartialList(Core& core) : core_(core) {}
    ~PartialList() override;

    // Reads every .met file of the directory that is a download's. One that is damaged is named in one line,
    // skipped and left untouched. False when the directory can't be read, which is said.
    bool loadFromDir(const char* directory);
    // Each record goes to one caller, also where two take them at the same time.
    std::vector<std::unique_ptr<FileMeta>> takeAll();
    // Writes each record to its .met file and destroys it.
    void saveToDir(const char* directory);

    // One meta file; a foreign one doesn't begin like ours.
    enum class MetaFile { whole, foreign, damaged };
    static MetaFile readMeta(i4_file& stream, FileMeta& record);
    static bool writeMeta(i4_file& stream, FileMeta& record);

  private:
    Core& core_;
};
