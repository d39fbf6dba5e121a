#include "download/PartialList.h"

#include <memory>

#include "core/Core.h"
#include "i4min/file/buffered_file.h"
#include "i4min/memory/error.h"

namespace {

constexpr u8 metaFileMagic = 0xE0;
constexpr u32 readBuffer = 64 * 1024;
constexpr std::string_view extension = ".met";

}  // namespace

PartialList::~PartialList() { deleteAll(); }

// A meta file:
//
//   offset  bytes  field
//   0       1      0xE0
//   1       ...    the record of the file in its disk form, see FileMeta: date 0, hash, part hashes, tags
//
// The tags are the file's own and behind them TAG_PART_TRANS, TAG_TEMPFILENAME, TAG_PRIORITY, TAG_STATE (1
// when paused) and the gaps, see PartialFile.cpp.
bool PartialList::writeMeta(i4_file& stream, FileMeta& record) {
    return stream.write_8(metaFileMagic) == 1 && record.toDisk(stream);
}

PartialList::MetaFile PartialList::readMeta(i4_file& stream, FileMeta& record) {
    try {
        if (stream.read_8() != metaFileMagic) return MetaFile::foreign;
        // Without its size a file would pass for whole.
        const bool whole = record.fromDisk(stream) && record.getValue<u32>(TAG_SIZE);
        return whole ? MetaFile::whole : MetaFile::damaged;
    } catch (const i4_err&) {
        return MetaFile::damaged;
    }
}

bool PartialList::loadFromDir(const char* directory) {
    i4_directory_list listing;
    if (!core_.host.disk.list(directory, listing, true)) {
        core_.log.printLine("%s: %s", core_.strings.get(STRINGS_COULDNT_LOAD_PARTS), directory);
        return false;
    }
    for (std::size_t i = 0; i < listing.files.size(); ++i) {
        const i4_string& name = listing.files[i];
        if (name.length() <= extension.size() || !name.view().ends_with(extension)) continue;
        if (listing.file_status[i].kind != i4_file_kind::regular) continue;
        i4_string path;
        path.format("%s/%S", directory, &name);
        std::unique_ptr<i4_file> file = core_.host.disk.open(path.c_str(), I4_FILE_READ);
        if (!file) continue;
        i4_buffered_file_class stream(std::move(file), readBuffer, 0);
        stream.setLog(&core_.log);
        auto record = std::make_unique<FileMeta>();
        switch (readMeta(stream, *record)) {
            case MetaFile::whole:
                add(record.release());
                break;
            case MetaFile::damaged:
                core_.log.printLine("Error loading: %s", path.c_str());
                break;
            case MetaFile::foreign:
                break;
        }
    }
    return true;
}

std::vector<std::unique_ptr<FileMeta>> PartialList::takeAll() {
    std::vector<std::unique_ptr<FileMeta>> records;
    const i4_guard guard(*this);
    for (Cursor c; FileMeta* record = next(c);) records.emplace_back(record);
    clearUnsafe();
    return records;
}

void PartialList::saveToDir(const char* directory) {
    for (const auto& record : takeAll()) {
        i4_string path;
        path.format("%s/%s.met", directory, record->getText(TAG_TEMPFILENAME));
        const bool saved =
            core_.files.save(path.c_str(), [&](i4_file& stream) { return writeMeta(stream, *record); });
        if (!saved) core_.log.print("ERROR: partial info not saved: %s", path.c_str());
    }
}
