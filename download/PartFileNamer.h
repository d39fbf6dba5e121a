// PartFileNamer gives each data file of a download its name, and moves a finished file to its place.
#pragma once

#include "i4min/memory/mutex.h"
#include "i4min/memory/types.h"
#include "i4min/string/string.h"
#include "meta/MD4Hash.h"

struct Core;

// Thread: any.
class PartFileNamer {
  public:
    explicit PartFileNamer(Core& core) : core_(core) {}
    // The next bare name N.part that is free in the temp directory, as is that of its meta file.
    void makeTempName(i4_string& out) EXCLUDES(lock_);
    // Moves `source` into `directory` under `name` made safe, or under 2_name, 3_name and so on where that is
    // taken: a file that exists is never replaced. Across file systems the file is copied, synced and its
    // size compared, and appears under its name only when it is whole. `path` becomes where the file lies
    // now: the source where it couldn't be moved, which is said in one line. False, and the file stays, when
    // the caller gives up while it is copied.
    bool moveFile(const char* source, const char* name, const char* directory, i4_string& path,
                  const GiveUp& giveUp = {});
    enum class Moved { done, failed, givenUp };
    // The same, but for a file that couldn't be moved `path` is what was tried last and nothing is said;
    // sayNotMoved() says it.
    Moved tryMove(const char* source, const char* name, const char* directory, i4_string& path,
                  const GiveUp& giveUp = {});
    void sayNotMoved(const char* source, const i4_string& path);

  private:
    Core& core_;
    i4_mutex lock_{LockRank::leaf};
    u32 counter_ GUARDED_BY(lock_) = 0;
};

// A name from the network as one plain path component: the last component only; '/', '\', NUL and control
// characters as '_'; never empty, "." or ".."; at most `longest` bytes, with the extension kept.
i4_string safeFileName(const char* name, std::size_t longest = 255);
