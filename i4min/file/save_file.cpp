#include "i4min/file/save_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "i4min/file/Disk.h"
#include "i4min/memory/error.h"

namespace {

constexpr int mostLinks = 40;

// Collects small writes, and remembers whether all of them reached the file.
class SavingFile : public i4_file {
  public:
    explicit SavingFile(i4_disk_file& file) : file_(file) { pending_.reserve(room); }

    i32 read(std::span<u8>) override { return -1; }
    i32 write(std::span<const u8> bytes) override {
        pending_.insert(pending_.end(), bytes.begin(), bytes.end());
        if (pending_.size() >= room) flush();
        return error_ != 0 ? -1 : static_cast<i32>(bytes.size());
    }
    u32 seek(u32 offset) override {
        flush();
        return static_cast<u32>(at_ = offset);
    }
    u32 tell() override { return static_cast<u32>(at_ + pending_.size()); }
    u32 size() override { return std::max(size_, tell()); }
    i4_file* flush() override {
        for (std::size_t done = 0; error_ == 0 && done < pending_.size();) {
            const i4_piece piece{pending_.data() + done, pending_.size() - done};
            const i64 written = file_.writeAt(at_ + done, {&piece, 1});
            if (written <= 0) error_ = written == 0 ? ENOSPC : errno;
            done += static_cast<std::size_t>(std::max<i64>(written, 0));
        }
        at_ += pending_.size();
        pending_.clear();
        size_ = std::max(size_, static_cast<u32>(at_));
        return this;
    }
    // True when every byte is on the disk.
    bool sync() {
        flush();
        if (error_ == 0 && !file_.sync()) error_ = errno;
        return error_ == 0;
    }
    int error() const { return error_; }

  private:
    static constexpr std::size_t room = 64 * 1024;
    i4_disk_file& file_;
    std::vector<u8> pending_;
    u64 at_ = 0;    // where the pending bytes go
    u32 size_ = 0;  // of what was written
    int error_ = 0;
};

std::string folderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

// The path that a save replaces: the file behind a link, so that the link stays. The file itself may be
// missing yet.
std::string realPath(Disk& disk, const char* path) {
    std::string result(path);
    i4_string target;
    for (int links = 0; links < mostLinks && disk.readLink(result.c_str(), target); ++links) {
        const std::string next(target.view());
        result = next.starts_with('/') ? next : folderOf(result) + next;
    }
    return result;
}

// The name of the file that is written beside the old one. While another thread saves to the same path, the
// two write to files of different names; what a crash left behind is written over.
class Beside {
  public:
    Beside(Disk& disk, const std::string& target) : disk_(disk) {
        for (int n = 1; path_.empty(); ++n) {
            const std::string name = target + (n == 1 ? ".new" : ".new" + std::to_string(n));
            if (disk_.claim(name)) path_ = name;
        }
    }
    Beside(const Beside&) = delete;
    Beside& operator=(const Beside&) = delete;
    // Anything still under that name is not to stay.
    ~Beside() {
        if (!moved_) disk_.remove(path());
        disk_.unclaim(path_);
    }
    const char* path() const { return path_.c_str(); }
    bool moveTo(const std::string& target) {
        moved_ = disk_.rename(path(), target.c_str(), Disk::Replace::yes);
        return moved_;
    }

  private:
    Disk& disk_;
    std::string path_;
    bool moved_ = false;
};

// Writes and syncs the file; what went wrong, empty when all is on the disk.
std::string writeWhole(i4_disk_file& file, const std::function<bool(i4_file&)>& write) {
    SavingFile stream(file);
    std::string reason;
    try {
        if (!write(stream)) reason = "its contents couldn't be written";
    } catch (const i4_err& error) {
        reason = error.message();
    }
    if (!stream.sync()) reason = std::strerror(stream.error());
    return reason;
}

}  // namespace

std::string saveFile(Disk& disk, const char* path, const std::function<bool(i4_file&)>& write) {
    const std::string target = realPath(disk, path);
    Beside beside(disk, target);
    {
        const std::unique_ptr<i4_disk_file> file =
            disk.open(beside.path(), I4_FILE_WRITE | I4_FILE_TRUNCATE | I4_FILE_PRIVATE);
        if (!file) return std::strerror(errno);
        // A file that its user closed to others stays closed, and is so before the first byte is in it.
        file->takeAccessOf(target.c_str());
        std::string reason = writeWhole(*file, write);
        if (!reason.empty()) return reason;
    }
    if (!beside.moveTo(target)) return std::strerror(errno);
    const std::string folder = folderOf(target);
    disk.syncFolder(folder.empty() ? "." : folder.c_str());
    return "";
}

std::string setAsideDamaged(Disk& disk, const char* path) {
    const std::string aside = std::string(path) + ".bad";
    return disk.rename(path, aside.c_str(), Disk::Replace::yes) ? "" : std::strerror(errno);
}
