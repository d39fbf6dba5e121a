#include "download/ShareList.h"

#include <algorithm>
#include <utility>

#include "core/Core.h"
#include "i4min/memory/error.h"

namespace {

void addUnlessThere(std::vector<i4_string>& dirs, const i4_string& path) {
    if (std::find(dirs.begin(), dirs.end(), path) == dirs.end()) dirs.push_back(path);
}

}  // namespace

bool ShareList::readPaths(i4_file& stream, std::vector<i4_string>& out) {
    return i4_attempt([&] {
        while (stream.tell() != stream.size()) out.emplace_back(stream);
        return true;
    });
}

void ShareList::writePaths(i4_file& stream, const std::vector<i4_string>& paths) {
    for (const i4_string& path : paths) path.write(stream);
}

void ShareList::load() {
    const char* file = core_.preferences.sharePath.c_str();
    std::vector<i4_string> dirs;
    bool whole = true;
    if (const std::unique_ptr<i4_file> stream = core_.host.disk.open(file, I4_FILE_READ)) {
        whole = readPaths(*stream, dirs);
    }
    if (!whole) {
        core_.log.printVerbose("Error loading shared directory list.\n");
        core_.files.setAside(file);
    }
    addUnlessThere(dirs, core_.preferences.incomingDir());
    const i4_lock guard(lock_);
    dirs_ = std::move(dirs);
}

void ShareList::save() const {
    std::vector<i4_string> dirs;
    copyTo(dirs);
    core_.files.save(core_.preferences.sharePath.c_str(), [this, &dirs](i4_file& stream) {
        try {
            writePaths(stream, dirs);
        } catch (const i4_err&) {
            core_.log.printVerbose("**I4 error in ShareList::save()\n");
            throw;
        }
        return true;
    });
}

void ShareList::copyTo(std::vector<i4_string>& out) const {
    const i4_lock guard(lock_);
    out.insert(out.end(), dirs_.begin(), dirs_.end());
}

void ShareList::addDir(const char* path) {
    const i4_lock guard(lock_);
    addUnlessThere(dirs_, path);
}

void ShareList::removeDir(const char* path) {
    const i4_lock guard(lock_);
    const auto found = std::find(dirs_.begin(), dirs_.end(), path);
    if (found != dirs_.end()) dirs_.erase(found);
}

void ShareList::setDirs(const std::vector<i4_string>& dirs) {
    std::vector<i4_string> unique;
    for (const i4_string& path : dirs) addUnlessThere(unique, path);
    addUnlessThere(unique, core_.preferences.incomingDir());
    const i4_lock guard(lock_);
    dirs_ = std::move(unique);
}
