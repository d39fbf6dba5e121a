#include "meta/FileList.h"

#include <string_view>
#include <unordered_set>

namespace {

FileDetails detailsFor(u32 size, u32 date, const char* name) {
    return {size, date, std::hash<std::string_view>()(orEmpty(name))};
}

}  // namespace

FileDetails fileDetailsOf(const FileMeta& file) {
    return detailsFor(file.getSize(), file.date, file.getName());
}

bool FileList::addUnique(FileMeta* file) {
    if (!file) return false;
    const i4_guard guard(*this);
    if (findUnsafe(file->hash)) return true;
    addUnsafe(file);
    return false;
}

void FileList::deleteRepeated() {
    const std::vector<FileMeta*> records = snapshot();
    std::unordered_set<MD4Hash> seen;
    for (auto record = records.rbegin(); record != records.rend(); ++record) {
        if ((*record)->hash.isZero() || seen.insert((*record)->hash).second) continue;
        const std::unique_ptr<FileMeta> repeated(*record);
        remove(*record);
    }
}

FileMeta* FileList::find(const MD4Hash& hash) {
    const i4_guard guard(*this);
    return findUnsafe(hash);
}

FileMeta* FileList::find(u32 size, u32 date, const char* name) {
    const i4_guard guard(*this);
    return findUnsafe(size, date, name);
}

FileMeta* FileList::findUnsafe(const MD4Hash& hash) {
    return firstOf<HashIndex<FileMeta>>(hash.bytes, [&](const FileMeta& file) { return file.hash == hash; });
}

FileMeta* FileList::findUnsafe(u32 size, u32 date, const char* name) {
    return firstOf<DetailsIndex>(detailsFor(size, date, name),
                                 [&](const FileMeta& file) { return file.matches(size, date, name); });
}
