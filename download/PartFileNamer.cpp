#include "download/PartFileNamer.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "core/Core.h"

namespace {

constexpr std::size_t copyBlock = 1024 * 1024;

// What taking a name for a file came to.
enum class Take { done, nameTaken, otherFileSystem, failed };

Take outcome(bool taken) {
    if (taken) return Take::done;
    if (errno == EEXIST) return Take::nameTaken;
    return errno == EXDEV ? Take::otherFileSystem : Take::failed;
}

// False when a read or write fails, or the caller gives up.
bool copyBytes(i4_disk_file& from, i4_disk_file& to, const GiveUp& giveUp) {
    std::vector<u8> block(copyBlock);
    for (u64 at = 0;;) {
        if (giveUp && giveUp()) return false;
        const i64 got = from.readAt(at, block);
        if (got == 0) return true;
        if (got < 0) return false;
        const i4_piece piece{block.data(), static_cast<std::size_t>(got)};
        if (to.writeAt(at, {&piece, 1}) != got) return false;
        at += static_cast<u64>(got);
    }
}

// A copy of a file in another directory, which nobody sees until it has its name.
class FileCopy {
  public:
    FileCopy(Disk& disk, const char* directory) : disk_(disk), copy_(disk.openHidden(directory, path_)) {}
    FileCopy(const FileCopy&) = delete;
    FileCopy& operator=(const FileCopy&) = delete;
    ~FileCopy() {
        if (copy_ && !named_) disk_.remove(path_.c_str());
    }
    // True when the whole of the source is on the disk.
    bool fill(const char* source, const GiveUp& giveUp) {
        const std::unique_ptr<i4_disk_file> from = disk_.open(source, I4_FILE_READ);
        i4_file_status there;
        i4_file_status here;
        return copy_ && from && copyBytes(*from, *copy_, giveUp) && copy_->sync() && from->status(there) &&
               copy_->status(here) && there.size == here.size;
    }
    Take nameIt(const char* target) {
        const Take taken = outcome(disk_.rename(path_.c_str(), target, Disk::Replace::no));
        named_ = taken == Take::done;
        return taken;
    }

  private:
    Disk& disk_;
    i4_string path_;
    const std::unique_ptr<i4_disk_file> copy_;
    bool named_ = false;
};

// name, 2_name, 3_name, ... in the directory, until one can be taken or it fails. `path` is the last one
// tried.
template <class TakePath>
Take takeFreeName(const char* name, const char* directory, i4_string& path, TakePath takePath) {
    const std::string plain(safeFileName(name).view());
    for (u32 n = 1;; ++n) {
        const i4_string tried =
            n == 1 ? i4_string(plain.c_str()) : safeFileName((std::to_string(n) + "_" + plain).c_str());
        path.format("%s/%S", directory, &tried);
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
    const i4_string directory = core_.preferences.tempDir();
    i4_lock guard(lock_);
    Disk& disk = core_.host.disk;
    i4_string path;
    i4_string metaPath;
    do {
        ++counter_;
        path.format("%S/%u.part", &directory, counter_);
        metaPath.format("%S.met", &path);
    } while (disk.exists(path.c_str()) || disk.exists(metaPath.c_str()));
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
    core_.log.printLine("%s %s %s", source, core_.strings.get(STRINGS_COULDNT_BE_MOVED), path.c_str());
}

PartFileNamer::Moved PartFileNamer::tryMove(const char* source, const char* name, const char* directory,
                                            i4_string& path, const GiveUp& giveUp) {
    Disk& disk = core_.host.disk;
    Take taken = takeFreeName(name, directory, path, [&](const char* target) {
        return outcome(disk.rename(source, target, Disk::Replace::no));
    });
    if (taken == Take::otherFileSystem) {
        FileCopy copy(disk, directory);
        taken = Take::failed;
        if (copy.fill(source, giveUp)) {
            taken =
                takeFreeName(name, directory, path, [&](const char* target) { return copy.nameIt(target); });
        } else if (giveUp && giveUp()) {
            return Moved::givenUp;
        }
        // The copy has its name for good before the source goes.
        if (taken == Take::done) {
            disk.syncFolder(directory);
            disk.remove(source);
            return Moved::done;
        }
    }
    if (taken != Take::done) return Moved::failed;
    disk.syncFolder(directory);
    return Moved::done;
}
