#include "download/PartFileNamer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "app/Preferences.h"
#include "app/StringTable.h"
#include "app/UIInterface.h"
#include "i4min/file/descriptor.h"
#include "i4min/file/filesystem.h"

namespace {

constexpr std::size_t copyBlock = 1024 * 1024;

// What taking a name for a file came to.
enum class Take { done, nameTaken, otherFileSystem, failed };

Take outcome(int error) {
    if (error == EEXIST) return Take::nameTaken;
    return error == EXDEV ? Take::otherFileSystem : Take::failed;
}

// A name of a file that isn't there is held by an empty file of ours, which the rename then replaces: for
// file systems that know neither a rename that doesn't replace nor links.
Take renameToHeldName(const char* source, const char* target) {
    const i4_descriptor held(::open(target, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0777));
    if (!held.isOpen()) return outcome(errno);
    if (::rename(source, target) == 0) return Take::done;
    const int error = errno;
    ::unlink(target);
    return outcome(error);
}

// Gives a file a new path, never in the place of another file.
Take renameTo(const char* source, const char* target) {
    if (::renameat2(AT_FDCWD, source, AT_FDCWD, target, RENAME_NOREPLACE) == 0) return Take::done;
    if (errno != EINVAL && errno != ENOSYS) return outcome(errno);
    if (::link(source, target) == 0) {
        ::unlink(source);
        return Take::done;
    }
    if (errno == EEXIST || errno == EXDEV) return outcome(errno);
    return renameToHeldName(source, target);
}

// False when a read or write fails, or the caller gives up.
bool copyBytes(int from, int to, const GiveUp& giveUp) {
    std::vector<char> block(copyBlock);
    for (;;) {
        if (giveUp && giveUp()) return false;
        const ssize_t got = ::read(from, block.data(), block.size());
        if (got == 0) return true;
        if (got < 0) return false;
        for (ssize_t done = 0; done < got;) {
            const ssize_t written = ::write(to, block.data() + done, static_cast<std::size_t>(got - done));
            if (written <= 0) return false;
            done += written;
        }
    }
}

bool sameSize(int a, int b) {
    struct stat first {};
    struct stat second {};
    return ::fstat(a, &first) == 0 && ::fstat(b, &second) == 0 && first.st_size == second.st_size;
}

// A copy of a file in another directory, without a name or, where the file system can't do that, under a
// hidden one.
class FileCopy {
  public:
    explicit FileCopy(const std::string& directory)
        : hidden_(directory + "/." + std::to_string(::getpid()) + ".copy"), copy_(make(directory)) {}
    FileCopy(const FileCopy&) = delete;
    FileCopy& operator=(const FileCopy&) = delete;
    ~FileCopy() {
        if (named_) ::unlink(hidden_.c_str());
    }
    // True when the whole of the source is on the disk.
    bool fill(const char* source, const GiveUp& giveUp) {
        const i4_descriptor from(::open(source, O_RDONLY | O_CLOEXEC));
        return copy_.isOpen() && from.isOpen() && copyBytes(from.get(), copy_.get(), giveUp) &&
               ::fsync(copy_.get()) == 0 && sameSize(from.get(), copy_.get());
    }
    Take nameIt(const char* target) {
        if (named_) {
            const Take taken = renameTo(hidden_.c_str(), target);
            named_ = taken != Take::done;
            return taken;
        }
        const std::string self = "/proc/self/fd/" + std::to_string(copy_.get());
        return ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, target, AT_SYMLINK_FOLLOW) == 0 ? Take::done
                                                                                          : outcome(errno);
    }

  private:
    int make(const std::string& directory) {
        const int nameless = ::open(directory.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0777);
        if (nameless >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL)) return nameless;
        const int hidden = ::open(hidden_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0777);
        named_ = hidden >= 0;
        return hidden;
    }

    const std::string hidden_;
    bool named_ = false;
    const i4_descriptor copy_;
};

// name, 2_name, 3_name, ... in the directory, until one can be taken or it fails. `path` is the last one
// tried.
template <class TakePath>
Take takeFreeName(const char* name, const char* directory, i4_string& path, TakePath takePath) {
    const std::string plain(safeFileName(name).view());
    for (u32 n = 1;; ++n) {
        const i4_string tried =
            n == 1 ? i4_string(plain.c_str()) : safeFileName((std::to_string(n) + "_" + plain).c_str());
        path.format("%s%c%S", directory, preferences.pathSeparator, &tried);
        const Take taken = takePath(path.c_str());
        if (taken != Take::nameTaken) return taken;
    }
}

}  // namespace

i4_string safeFileName(const char* name, std::size_t longest) {
    std::string text(orEmpty(name));
    const std::size_t component = text.find_last_of("/\\");
    if (component != std::string::npos) text.erase(0, component + 1);
    for (char& c : text) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '_';
    }
    if (text.empty() || text == "." || text == "..") return "_";
    if (text.size() > longest) {
        const std::size_t dot = text.rfind('.');
        const std::string extension =
            dot != std::string::npos && text.size() - dot < longest ? text.substr(dot) : "";
        std::size_t end = longest - extension.size();
        // Not inside a character.
        while (end > 1 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
        text = text.substr(0, end) + extension;
    }
    return text.c_str();
}

void PartFileNamer::makeTempName(i4_string& out) {
    const i4_string directory = preferences.tempDir();
    i4_lock guard(lock_);
    i4_file_status status;
    i4_string path;
    i4_string metaPath;
    do {
        ++counter_;
        path.format("%S%c%u.part", &directory, preferences.pathSeparator, counter_);
        metaPath.format("%S.met", &path);
    } while (i4_get_status(path.c_str(), status) || i4_get_status(metaPath.c_str(), status));
    out.format("%u.part", counter_);
}

bool PartFileNamer::moveFile(const char* source, const char* name, const char* directory, i4_string& path,
                             const GiveUp& giveUp) {
    const Moved moved = tryMove(source, name, directory, path, giveUp);
    if (moved == Moved::failed) sayNotMoved(source, path);
    if (moved != Moved::done) path = source;
    return moved != Moved::givenUp;
}

void PartFileNamer::sayNotMoved(const char* source, const i4_string& path) {
    theLog->printLine("%s %s %s", source, stringTable.get(STRINGS_COULDNT_BE_MOVED), path.c_str());
}

PartFileNamer::Moved PartFileNamer::tryMove(const char* source, const char* name, const char* directory,
                                            i4_string& path, const GiveUp& giveUp) {
    Take taken =
        takeFreeName(name, directory, path, [&](const char* target) { return renameTo(source, target); });
    if (taken == Take::otherFileSystem) {
        FileCopy copy(directory);
        taken = Take::failed;
        if (copy.fill(source, giveUp)) {
            taken =
                takeFreeName(name, directory, path, [&](const char* target) { return copy.nameIt(target); });
        } else if (giveUp && giveUp()) {
            return Moved::givenUp;
        }
        // The copy has its name for good before the source goes.
        if (taken == Take::done) {
            i4_sync_folder(directory);
            ::unlink(source);
            return Moved::done;
        }
    }
    if (taken != Take::done) return Moved::failed;
    i4_sync_folder(directory);
    return Moved::done;
}
