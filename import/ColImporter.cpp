#include "import/ColImporter.h"

#include <utility>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "meta/FileMeta.h"

namespace {

// Enough for any real record. Limits the tags that a stranger's file makes us keep.
constexpr u32 maxRecord = 256 * 1024;

}  // namespace

bool ColImporter::import(FileMeta& meta, const char*, i4_file& file) const {
    std::array<u8, collectionMagic.size()> start{};
    file.readAll(start);
    if (start != collectionMagic) return false;
    std::vector<u8> block = readBlock(file, maxRecord);
    i4_ram_file_class stream(block.data(), static_cast<u32>(block.size()), 0);
    stream.setLog(file.log());
    FileMeta stored;
    if (!stored.fromDisk(stream)) i4_error()("a collection without a whole record");
    meta.Meta::copyFrom(&stored);
    meta.date = stored.date;
    meta.hash = stored.hash;
    meta.partHashes = std::move(stored.partHashes);
    return true;
}
