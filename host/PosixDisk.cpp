#include "host/PosixDisk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <string>
#include <string_view>

#include "i4min/file/descriptor.h"

namespace {

constexpr std::size_t mostPieces = 64;
constexpr mode_t everybody = 0666;  // less the umask
constexpr mode_t ownerAlone = 0600;
constexpr std::string_view openFiles = "/proc/self/fd/";

// An open file of the system. Owns its descriptor. Errors: a result below 0 or false, the reason in errno.
class PosixFile final : public i4_disk_file {
  public:
    explicit PosixFile(int descriptor) : stream_(descriptor) {}

    i32 read(std::span<u8> to) override { return stream_.read(to); }
    i32 write(std::span<const u8> bytes) override { return stream_.write(bytes); }
    u32 seek(u32 offset) override { return stream_.seek(offset); }
    u32 size() override { return stream_.size(); }
    u32 tell() override { return stream_.tell(); }
    std::optional<u32> bytesLeft() override { return stream_.bytesLeft(); }

    i64 readAt(u64 at, std::span<u8> to) override {
        ssize_t got = -1;
        do got = ::pread(stream_.descriptor(), to.data(), to.size(), static_cast<off_t>(at));
        while (got < 0 && errno == EINTR);
        return got;
    }
    i64 writeAt(u64 at, std::span<const i4_piece> pieces) override {
        i64 done = 0;
        for (std::size_t first = 0; first < pieces.size(); first += mostPieces) {
            std::array<iovec, mostPieces> vectors{};
            std::size_t count = 0;
            i64 wanted = 0;
            for (; count < mostPieces && first + count < pieces.size(); ++count) {
                const i4_piece& piece = pieces[first + count];
                vectors[count] = {const_cast<u8*>(piece.data()), piece.size()};
                wanted += static_cast<i64>(piece.size());
            }
            ssize_t written = -1;
            do {
                written = ::pwritev(stream_.descriptor(), vectors.data(), static_cast<int>(count),
                                    static_cast<off_t>(at) + done);
            } while (written < 0 && errno == EINTR);
            if (written < 0) return done > 0 ? done : -1;
            done += written;
            if (written < wanted) break;
        }
        return done;
    }
    bool sync() override { return ::fsync(stream_.descriptor()) == 0; }
    bool status(i4_file_status& out) override { return i4_get_status(stream_.descriptor(), out); }
    bool isCached(u64 at) override {
        char byte = 0;
        const iovec one{&byte, 1};
        return ::preadv2(stream_.descriptor(), &one, 1, static_cast<off_t>(at), RWF_NOWAIT) == 1;
    }
    void willReadAll() override { ::posix_fadvise(stream_.descriptor(), 0, 0, POSIX_FADV_SEQUENTIAL); }
    void takeAccessOf(const char* path) override {
        struct stat other {};
        if (::stat(path, &other) != 0) return;
        // The owner first: changing it may take bits of the mode.
        [[maybe_unused]] const int given = ::fchown(stream_.descriptor(), other.st_uid, other.st_gid);
        ::fchmod(stream_.descriptor(), other.st_mode & 07777);
    }

  private:
    i4_unix_file_class stream_;
};

// For file systems that know neither a rename that doesn't replace nor links: the name is held by an empty
// file of ours, which the rename then replaces.
bool renameToHeldName(const char* from, const char* to) {
    const i4_descriptor held(::open(to, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, everybody));
    if (!held.isOpen()) return false;
    if (::rename(from, to) == 0) return true;
    const int error = errno;
    ::unlink(to);
    errno = error;
    return false;
}

}  // namespace

std::unique_ptr<i4_disk_file> PosixDisk::open(const char* path, u32 flags) {
    int mode = O_CLOEXEC | O_NONBLOCK;
    const bool writes = (flags & (I4_FILE_WRITE | I4_FILE_APPEND)) != 0;
    mode |= writes ? (flags & I4_FILE_READ ? O_RDWR : O_WRONLY) | O_CREAT : O_RDONLY;
    if (flags & I4_FILE_APPEND) mode |= O_APPEND;
    if (flags & I4_FILE_TRUNCATE) mode |= O_TRUNC;
    if (flags & I4_FILE_NEW) mode |= O_EXCL;
    const int descriptor = ::open(path, mode, flags & I4_FILE_PRIVATE ? ownerAlone : everybody);
    return descriptor < 0 ? nullptr : std::make_unique<PosixFile>(descriptor);
}

bool PosixDisk::status(const char* path, i4_file_status& out) { return i4_get_status(path, out); }

bool PosixDisk::readLink(const char* path, i4_string& out) {
    char target[4096];
    const ssize_t length = ::readlink(path, target, sizeof target);
    if (length < 0) return false;
    out = i4_string(target, static_cast<std::size_t>(length));
    return true;
}

bool PosixDisk::list(const char* path, i4_directory_list& out, bool withStatus) {
    return i4_get_directory(path, out, withStatus);
}

bool PosixDisk::makeDirectory(const char* path) { return ::mkdir(path, 0777) == 0; }
bool PosixDisk::remove(const char* path) { return ::unlink(path) == 0; }

bool PosixDisk::rename(const char* from, const char* to, Replace replace) {
    if (replace == Replace::yes) return ::rename(from, to) == 0;
    if (std::string_view(from).starts_with(openFiles)) {
        return ::linkat(AT_FDCWD, from, AT_FDCWD, to, AT_SYMLINK_FOLLOW) == 0;
    }
    if (::renameat2(AT_FDCWD, from, AT_FDCWD, to, RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    if (::link(from, to) == 0) return ::unlink(from) == 0;
    return errno != EEXIST && errno != EXDEV && renameToHeldName(from, to);
}

// Without a name, where the file system can do that: nothing is left behind by a crash.
std::unique_ptr<i4_disk_file> PosixDisk::openHidden(const char* directory, i4_string& path) {
    const int nameless = ::open(directory, O_TMPFILE | O_WRONLY | O_CLOEXEC, everybody);
    if (nameless >= 0) {
        path = (std::string(openFiles) + std::to_string(nameless)).c_str();
        return std::make_unique<PosixFile>(nameless);
    }
    if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) return nullptr;
    path = (std::string(directory) + "/." + std::to_string(::getpid()) + ".copy").c_str();
    return open(path.c_str(), I4_FILE_WRITE | I4_FILE_NEW);
}

bool PosixDisk::syncFolder(const char* path) {
    const i4_descriptor folder(::open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.isOpen() && ::fsync(folder.get()) == 0;
}

u64 PosixDisk::freeSpace(const char* path) { return i4_disk_free(path); }
