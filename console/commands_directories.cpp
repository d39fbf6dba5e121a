// The commands that change the shared directories.
#include <sys/stat.h>

#include <set>
#include <utility>
#include <vector>

#include "app/ClientApp.h"
#include "app/Preferences.h"
#include "app/UIInterface.h"
#include "console/Servant.h"
#include "console/commands.h"
#include "i4min/file/filesystem.h"

namespace {

// Depth first, parents first; hidden directories are left out with all below them, and so is one that was met
// before, since a link may lead back up.
class Tree {
  public:
    explicit Tree(std::vector<i4_string>& out) : out_(out) {}

    void add(const i4_string& path) {
        struct stat status {};
        if (::stat(path.c_str(), &status) != 0 || !seen_.insert({status.st_dev, status.st_ino}).second)
            return;
        i4_directory_list list;
        if (!i4_get_directory(path.c_str(), list, false)) return;
        out_.push_back(path);
        for (const i4_string& name : list.dirs) {
            if (name.view().front() == '.') continue;
            i4_string below;
            below.format("%S%c%S", &path, preferences.pathSeparator, &name);
            add(below);
        }
    }

  private:
    std::vector<i4_string>& out_;
    std::set<std::pair<dev_t, ino_t>> seen_;
};

}  // namespace

void shareDirectory(Servant&, char* line) {
    const char* path = restOfLine(line);
    if (!path) return;
    std::vector<i4_string> dirs;
    clientApp.getSharedDirs(dirs);
    dirs.emplace_back(path);
    clientApp.setSharedDirs(dirs);
}

void shareTree(Servant&, char* line) {
    const char* path = restOfLine(line);
    if (!path) return;
    std::vector<i4_string> dirs;
    clientApp.getSharedDirs(dirs);
    Tree(dirs).add(path);
    clientApp.setSharedDirs(dirs);
}

void unshareDirectory(Servant&, char* line) {
    const std::optional<i32> number = numberArgument(line);
    if (!number || *number == 0) {
        theLog->printLine("Invalid Directory number.\n");
        return;
    }
    std::vector<i4_string> dirs;
    clientApp.getSharedDirs(dirs);
    if (*number > 0 && static_cast<std::size_t>(*number) <= dirs.size())
        dirs.erase(dirs.begin() + *number - 1);
    clientApp.setSharedDirs(dirs);
}
