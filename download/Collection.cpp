#include "download/Collection.h"

#include <cerrno>
#include <string>
#include <utility>
#include <vector>

#include "core/Core.h"
#include "download/PartFileNamer.h"
#include "i4min/file/save_file.h"
#include "i4min/memory/error.h"
#include "import/ColImporter.h"

namespace {

constexpr std::size_t longestCollectionName = 250;  // saving puts an ending behind it for a moment

}  // namespace

Collection::~Collection() { deleteAll(); }

LoadResult Collection::load(Disk& disk, const char* path, i4_log* log) {
    deleteAll();
    const std::unique_ptr<i4_file> file = disk.open(path, I4_FILE_READ);
    if (!file) return errno == ENOENT || errno == ENOTDIR ? LoadResult::missing : LoadResult::damaged;
    // One byte more than is taken tells a file that is too large from one that just fits.
    std::vector<u8> bytes = readBlock(*file, maxFile + 1);
    if (bytes.size() > maxFile) return LoadResult::damaged;
    i4_ram_file_class stream(bytes.data(), static_cast<u32>(bytes.size()), 0);
    stream.setLog(log);
    return read(stream) ? LoadResult::whole : LoadResult::damaged;
}

bool Collection::read(i4_file& file) {
    return i4_attempt([&] {
        const i4_string magic(file);
        return self.fromDisk(file) && fromDisk(file);
    });
}

std::string Collection::save(Disk& disk, const char* path) {
    return saveFile(disk, path, [this](i4_file& file) {
        if (!file.writeAll(collectionMagic)) return false;
        try {
            return self.toDisk(file) && toDisk(file);
        } catch (const i4_err&) {
            core_.log.printVerbose("**I4 error in Collection::save\n");
            return false;
        }
    });
}

bool Collection::store() {
    const i4_string name = safeFileName(self.getName(), longestCollectionName);
    const std::string path =
        std::string(core_.preferences.incomingDir().view()) + core_.preferences.pathSeparator + name.c_str();
    self.setText(TAG_TYPE, "Col");
    u64 size = 0;
    MD4Hash hash;
    std::vector<MD4Hash> parts;
    Disk& disk = core_.host.disk;
    if (const std::string reason = save(disk, path.c_str()); !reason.empty()) {
        core_.log.printLine("Couldn't save %s: %s", path.c_str(), reason.c_str());
        return false;
    }
    if (MD4Hash::computeFile(hash, disk, path.c_str(), parts, {}, &size) != HashOutcome::whole) return false;
    self.setInt(TAG_SIZE, static_cast<u32>(size));
    self.setPath(path.c_str());
    self.hash = hash;
    self.partHashes = std::move(parts);
    return true;
}

void Collection::fetchAll() {
    const i4_guard guard(*this);
    for (Cursor c; const FileMeta* member = next(c);) {
        core_.messages.post(MESSAGE_DOWNLOAD, std::shared_ptr<FileMeta>(copyOf(*member)));
    }
}
