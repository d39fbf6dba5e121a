#include "i4min/file/save_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "app/UIInterface.h"
#include "i4min/file/file.h"
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

bool report(const char* path, int error) {
    theLog->printLine("Couldn't save %s: %s", path, std::strerror(error));
    return false;
}

// The path that a save replaces: the file behind a link, so that the link stays.
std::string realPath(const char* path) {
    char* resolved = ::realpath(path, nullptr);
    std::string result(resolved ? resolved : path);
    std::free(resolved);
    return result;
}

void syncFolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
    const int descriptor = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return;
    ::fsync(descriptor);
    ::close(descriptor);
}

}  // namespace

bool saveFile(const char* path, const std::function<bool(i4_file&)>& write) {
    const std::string target = realPath(path);
    const std::string beside = target + ".new";
    struct stat old {};
    const bool replaces = ::stat(target.c_str(), &old) == 0;
    const int descriptor = ::open(beside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                                  replaces ? old.st_mode & 0777 : 0777);
    if (descriptor < 0) return report(path, errno);
    bool whole = false;
    int error = EIO;
    {
        SavingFile file(descriptor);
        try {
            whole = write(file);
        } catch (const i4_err&) {
            whole = false;
        }
        if (!file.sync()) {
            whole = false;
            error = file.error();
        }
    }
    if (whole && ::rename(beside.c_str(), target.c_str()) != 0) {
        whole = false;
        error = errno;
    }
    if (!whole) {
        ::unlink(beside.c_str());
        return report(path, error);
    }
    syncFolderOf(target);
    return true;
}

void setAsideDamaged(const char* path) {
    const std::string aside = std::string(path) + ".bad";
    if (::rename(path, aside.c_str()) != 0) report(aside.c_str(), errno);
}
