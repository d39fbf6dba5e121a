#include "download/Collection.h"

#include <algorithm>
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

// Empty for a file that is too large. One byte more than is taken tells it from one that just fits.
std::vector<u8> bytesOf(i4_file& file) {
    std::vector<u8> bytes = readBlock(file, Collection::maxFile + 1);
    if (bytes.size() > Collection::maxFile) bytes.clear();
    return bytes;
}

}  // namespace

Collection::~Collection() { deleteAll(); }

LoadResult Collection::load(Disk& disk, const char* path, i4_log* log) {
    deleteAll();
    const std::unique_ptr<i4_file> file = disk.open(path, I4_FILE_READ);
    if (!file) return errno == ENOENT || errno == ENOTDIR ? LoadResult::missing : LoadResult::damaged;
    std::vector<u8> bytes = bytesOf(*file);
    i4_ram_file_class stream(bytes.data(), static_cast<u32>(bytes.size()), 0);
    stream.setLog(log);
    return read(stream) ? LoadResult::whole : LoadResult::damaged;
}

bool Collection::isOne(const FileMeta& record) {
    return i4_strcmp(record.getText(TAG_TYPE), collectionType) == 0 && record.getSize() <= maxFile;
}

bool Collection::stores(Core& core, const FileMeta& record) {
    if (!isOne(record)) return false;
    const std::unique_ptr<i4_file> file = core.host.disk.open(record.path.c_str(), I4_FILE_READ);
    if (!file) return false;
    std::vector<u8> bytes = bytesOf(*file);
    if (!std::equal(
            collectionMagic.begin(), collectionMagic.end(), bytes.begin(),
            bytes.begin() + static_cast<std::ptrdiff_t>(std::min(bytes.size(), collectionMagic.size()))))
        return false;
    i4_ram_file_class stream(bytes.data(), static_cast<u32>(bytes.size()), 0);
    Collection collection(core);
    return collection.read(stream) && stream.bytesLeft() == 0U && collection.self.hash == record.hash;
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
    self.setText(TAG_TYPE, collectionType);
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
