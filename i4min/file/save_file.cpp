#include "i4min/file/save_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "app/UIInterface.h"
#include "i4min/file/file.h"
#include "i4min/file/filesystem.h"
#include "i4min/memory/error.h"

namespace {

// Collects small writes, and remembers whether all of them reached the descriptor.
class SavingFile : public i4_unix_file_class {
  public:
    explicit SavingFile(int descriptor) : i4_unix_file_class(descriptor) { pending_.reserve(room); }

    i32 write(const void* buffer, u32 count) override {
        const auto* bytes = static_cast<const u8*>(buffer);
        pending_.insert(pending_.end(), bytes, bytes + count);
        if (pending_.size() >= room) flush();
        return failed_ ? -1 : static_cast<i32>(count);
    }
    u32 seek(u32 offset) override {
        flush();
        return i4_unix_file_class::seek(offset);
    }
    u32 tell() override {
        flush();
        return i4_unix_file_class::tell();
    }
    u32 size() override {
        flush();
        return i4_unix_file_class::size();
    }
    i4_file* flush() override {
        std::size_t done = 0;
        while (!failed_ && done < pending_.size()) {
            const ssize_t written = ::write(descriptor(), pending_.data() + done, pending_.size() - done);
            if (written > 0) {
                done += static_cast<std::size_t>(written);
            } else if (written == 0 || errno != EINTR) {
                error_ = written == 0 ? ENOSPC : errno;
                failed_ = true;
            }
        }
        pending_.clear();
        return this;
    }
    // True when every byte is on the disk.
    bool sync() {
        flush();
        if (!failed_ && ::fsync(descriptor()) != 0) {
            error_ = errno;
            failed_ = true;
        }
        return !failed_;
    }
    int error() const { return error_; }

  private:
    static constexpr std::size_t room = 64 * 1024;
    std::vector<u8> pending_;
    bool failed_ = false;
    int error_ = 0;
};

bool report(const char* path, const std::string& reason) {
    theLog->printLine("Couldn't save %s: %s", path, reason.c_str());
    return false;
}

// The path that a save replaces: the file behind a link, so that the link stays. The file itself may be
// missing yet.
std::string realPath(const char* path) {
    std::string result(path);
    for (int links = 0; links < 40; ++links) {
        std::error_code none;
        const std::filesystem::path target = std::filesystem::read_symlink(result, none);
        if (none) break;
        result = std::filesystem::path(result).parent_path() / target;
    }
    return result;
}

// The name of the file that is written beside the old one. While another thread saves to the same path, the
// two write to files of different names; what a crash left behind is written over.
class Beside {
  public:
    explicit Beside(const std::string& target) {
        std::lock_guard<std::mutex> lock(mutex());
        for (int n = 1; path_.empty(); ++n) {
            const std::string name = target + (n == 1 ? ".new" : ".new" + std::to_string(n));
            if (taken().insert(name).second) path_ = name;
        }
    }
    Beside(const Beside&) = delete;
    Beside& operator=(const Beside&) = delete;
    // Anything still under that name is not to stay.
    ~Beside() {
        std::lock_guard<std::mutex> lock(mutex());
        if (!moved_) ::unlink(path());
        taken().erase(path_);
    }
    const char* path() const { return path_.c_str(); }
    bool moveTo(const std::string& target) {
        moved_ = ::rename(path(), target.c_str()) == 0;
        return moved_;
    }

  private:
    static std::mutex& mutex() {
        static std::mutex theMutex;
        return theMutex;
    }
    static std::set<std::string>& taken() {
        static std::set<std::string> names;
        return names;
    }
    std::string path_;
    bool moved_ = false;
};

// Writes and syncs the file; what went wrong, empty when all is on the disk.
std::string writeWhole(int descriptor, const std::function<bool(i4_file&)>& write) {
    SavingFile file(descriptor);
    std::string reason;
    try {
        if (!write(file)) reason = "its contents couldn't be written";
    } catch (const i4_err& error) {
        reason = error.message();
    }
    if (!file.sync()) reason = std::strerror(file.error());
    return reason;
}

void syncFolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    i4_sync_folder(folder.c_str());
}

}  // namespace

bool saveFile(const char* path, const std::function<bool(i4_file&)>& write) {
    const std::string target = realPath(path);
    Beside beside(target);
    struct stat old {};
    const bool replaces = ::stat(target.c_str(), &old) == 0;
    const int descriptor = ::open(beside.path(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (descriptor < 0) return report(path, std::strerror(errno));
    // A file that its user closed to others stays closed, and is so before the first byte is in it.
    if (replaces) ::fchmod(descriptor, old.st_mode & 0777);
    const std::string reason = writeWhole(descriptor, write);
    if (!reason.empty()) return report(path, reason);
    if (!beside.moveTo(target)) return report(path, std::strerror(errno));
    syncFolderOf(target);
    return true;
}

void setAsideDamaged(const char* path) {
    const std::string aside = std::string(path) + ".bad";
    if (::rename(path, aside.c_str()) != 0) report(aside.c_str(), std::strerror(errno));
}
