// Saving a file so that a crash leaves either the old one or the new one, whole.
#pragma once

#include <functional>
#include <string>

class Disk;
class i4_file;

// Thread: any; of two that save to one path at the same time, the last to finish wins.
//
// Writes `path` through `write`: the bytes go to a file beside it, are synced, take the place of the old
// file, and the folder is synced. `write` returns false, or raises, to give up: the old
// file then stays. A new file is its owner's alone to read: settings hold passwords. The path is taken
// exactly as it stands. The result is empty when the new file is in place, else the reason why it isn't.
[[nodiscard]] std::string saveFile(Disk& disk, const char* path, const std::function<bool(i4_file&)>& write);

// Moves a file that didn't read whole out of the way, as PATH.bad, so that the next save doesn't overwrite
// it. The result is empty, or the reason why it still lies there.
[[nodiscard]] std::string setAsideDamaged(Disk& disk, const char* path);
