#include "i4min/file/filesystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <numeric>
#include <string>
#include <string_view>
#include <utility>

#include "i4min/file/descriptor.h"
#include "i4min/file/file.h"

namespace {

constexpr mode_t every_permission = 0xFFFF;  // less the umask
constexpr std::size_t longest_path = 4096;
constexpr std::size_t longest_translated = 256;

struct CloseDirectory {
    void operator()(DIR* directory) const { ::closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

i4_file_status statusOf(const struct stat& from) {
    i4_file_status status;
    status.last_modified = static_cast<u32>(from.st_mtime);
    status.last_accessed = static_cast<u32>(from.st_atime);
    status.created = static_cast<u32>(from.st_ctime);
    status.size = static_cast<u64>(from.st_size);
    status.occupied = static_cast<u64>(from.st_blocks) * 512;
    status.modified_ns =
        static_cast<u64>(from.st_mtim.tv_sec) * 1'000'000'000 + static_cast<u64>(from.st_mtim.tv_nsec);
    status.device = from.st_dev;
    status.inode = from.st_ino;
    status.kind = i4_file_kind::other;
    if (S_ISREG(from.st_mode)) status.kind = i4_file_kind::regular;
    if (S_ISDIR(from.st_mode)) {
        status.kind = i4_file_kind::directory;
        status.flags |= I4_FILE_STATUS_DIRECTORY;
    }
    return status;
}

// A directory that can be opened. With O_DIRECTORY the system touches nothing else, so that a FIFO's writer
// or a device isn't disturbed.
bool isDirectory(int parent, const dirent& entry) {
    if (entry.d_type != DT_DIR && entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) return false;
    return i4_descriptor(::openat(parent, entry.d_name, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC))
        .isOpen();
}

bool isSeparator(char c) { return c == '/' || c == '\\'; }

std::vector<std::string_view> componentsOf(std::string_view path) {
    std::vector<std::string_view> components;
    while (!path.empty()) {
        const std::size_t length =
            static_cast<std::size_t>(std::find_if(path.begin(), path.end(), isSeparator) - path.begin());
        if (length > 0) components.push_back(path.substr(0, length));
        path.remove_prefix(std::min(length + 1, path.size()));
    }
    return components;
}

u64 keyOf(const i4_file_status& status, i4_sort_key key) {
    switch (key) {
        case i4_sort_key::last_modified:
            return status.last_modified;
        case i4_sort_key::last_accessed:
            return status.last_accessed;
        case i4_sort_key::created:
            return status.created;
        default:
            return status.size;
    }
}

}  // namespace

bool i4_unlink(const char* name) {
    char path[longest_translated];
    i4_translate_path(name, path, sizeof path);
    return ::unlink(path) == 0;
}

bool i4_mkdir(const char* name) { return ::mkdir(name, every_permission) == 0; }
bool i4_chdir(const char* name) { return ::chdir(name) == 0; }

bool i4_get_cwd(i4_string& out) {
    char path[longest_path];
    if (!::getcwd(path, sizeof path - 1)) return false;
    out = path;
    return true;
}

bool i4_full_path(const char* name, i4_string& out) {
    char path[PATH_MAX];
    if (!::realpath(name, path)) return false;
    out = path;
    return true;
}

bool i4_get_status(const char* name, i4_file_status& out) {
    out = {};
    struct stat status {};
    if (::stat(name, &status) != 0) return false;
    out = statusOf(status);
    return true;
}

bool i4_get_status(int descriptor, i4_file_status& out) {
    out = {};
    struct stat status {};
    if (::fstat(descriptor, &status) != 0) return false;
    out = statusOf(status);
    return true;
}

bool i4_get_directory(const char* path, i4_directory_list& out, bool want_status) {
    const Directory directory(::opendir(path));
    if (!directory) return false;
    const int descriptor = ::dirfd(directory.get());
    while (const dirent* entry = ::readdir(directory.get())) {
        if (isDirectory(descriptor, *entry)) {
            out.dirs.emplace_back(entry->d_name);
            continue;
        }
        out.files.emplace_back(entry->d_name);
        if (!want_status) continue;
        struct stat status {};
        const bool known = ::fstatat(descriptor, entry->d_name, &status, 0) == 0;
        out.file_status.push_back(known ? statusOf(status) : i4_file_status());
    }
    return true;
}

u64 i4_disk_free(const char* path) {
    struct statvfs system {};
    if (::statvfs(path, &system) != 0) return i4_disk_free_unknown;
    return static_cast<u64>(system.f_bavail) * system.f_frsize;
}

bool i4_make_path(const char* path) {
    const std::string_view whole = orEmpty(path);
    if (whole.empty()) return false;
    for (std::size_t end = 1; end <= whole.size(); ++end) {
        if (end < whole.size() && !isSeparator(whole[end])) continue;
        const std::string prefix(whole.substr(0, std::min(end + 1, whole.size())));
        i4_file_status status;
        if (i4_get_status(prefix.c_str(), status)) {
            if (status.kind != i4_file_kind::directory) return false;
        } else if (!i4_mkdir(prefix.c_str())) {
            return false;
        }
    }
    return true;
}

void i4_split_path(const char* path, i4_string& dir, i4_string& name, i4_string& ext) {
    const std::string whole(orEmpty(path));
    const std::size_t separator = whole.find_last_of("/\\");
    const std::size_t start = separator == std::string::npos ? 0 : separator + 1;
    std::size_t dot = whole.rfind('.');
    if (dot != std::string::npos && dot < start) dot = std::string::npos;
    if (separator != std::string::npos) dir = whole.substr(0, separator).c_str();
    if (dot != std::string::npos) ext = whole.substr(dot + 1).c_str();
    name = whole.substr(start, dot == std::string::npos ? dot : dot - start).c_str();
}

bool i4_relative_path(const char* path, i4_string& out) {
    i4_string target;
    i4_string current;
    if (!i4_full_path(path, target) || !i4_full_path(".", current)) return false;
    const auto to = componentsOf(target.view());
    const auto from = componentsOf(current.view());
    const auto [from_rest, to_rest] = std::mismatch(from.begin(), from.end(), to.begin(), to.end());
    std::string result;
    for (auto up = from_rest; up != from.end(); ++up) result += "../";
    for (auto down = to_rest; down != to.end(); ++down) {
        if (down != to_rest) result += '/';
        result += *down;
    }
    out = result.c_str();
    return true;
}

void i4_sort_directory(i4_directory_list& list, i4_sort_key key) {
    if (list.files.size() < 2 || list.file_status.size() != list.files.size()) return;
    std::vector<std::size_t> order(list.files.size());
    std::iota(order.begin(), order.end(), std::size_t{0});
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return keyOf(list.file_status[a], key) < keyOf(list.file_status[b], key);
    });
    i4_directory_list sorted;
    for (const std::size_t at : order) {
        sorted.files.push_back(std::move(list.files[at]));
        sorted.file_status.push_back(list.file_status[at]);
    }
    list.files = std::move(sorted.files);
    list.file_status = std::move(sorted.file_status);
}
