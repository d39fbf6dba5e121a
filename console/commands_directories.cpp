// The commands that change the shared directories.
#include <set>
#include <utility>
#include <vector>

#include "console/ConClientApp.h"
#include "console/commands.h"
#include "engine/Engine.h"

namespace {

// Lists a directory tree depth first, parents first. Skips hidden directories with everything below them, and
// directories seen before, since a link may lead back up.
// Thread: one. Borrows: the disk and the output.
class Tree {
  public:
    Tree(Disk& disk, std::vector<i4_string>& out) : disk_(disk), out_(out) {}

    void add(const i4_string& path) {
        i4_file_status status;
        if (!disk_.status(path.c_str(), status) || !seen_.insert({status.device, status.inode}).second)
            return;
        i4_directory_list list;
        if (!disk_.list(path.c_str(), list, false)) return;
        out_.push_back(path);
        for (const i4_string& name : list.dirs) {
            if (name.view().front() == '.') continue;
            i4_string below;
            below.format("%S/%S", &path, &name);
            add(below);
        }
    }

  private:
    Disk& disk_;
    std::vector<i4_string>& out_;
    std::set<std::pair<u64, u64>> seen_;
};

}  // namespace

void shareDirectory(ConClientApp& console, char* line) {
    const char* path = restOfLine(line);
    if (!path) return;
    std::vector<i4_string> dirs;
    console.engine().clientApp.getSharedDirs(dirs);
    dirs.emplace_back(path);
    console.engine().clientApp.setSharedDirs(dirs);
}

void shareTree(ConClientApp& console, char* line) {
    const char* path = restOfLine(line);
    if (!path) return;
    std::vector<i4_string> dirs;
    console.engine().clientApp.getSharedDirs(dirs);
    Tree(console.engine().host.disk, dirs).add(path);
    console.engine().clientApp.setSharedDirs(dirs);
}

void unshareDirectory(ConClientApp& console, char* line) {
    const std::optional<i32> number = numberArgument(line);
    if (!number || *number == 0) {
        console.log().printLine("Invalid Directory number.\n");
        return;
    }
    std::vector<i4_string> dirs;
    console.engine().clientApp.getSharedDirs(dirs);
    if (*number > 0 && static_cast<std::size_t>(*number) <= dirs.size())
        dirs.erase(dirs.begin() + *number - 1);
    console.engine().clientApp.setSharedDirs(dirs);
}
