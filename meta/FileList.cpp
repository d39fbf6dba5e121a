#include "meta/FileList.h"

#include <string_view>
#include <unordered_set>

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
    if (byHash_.startBuilding()) {
        for (Cursor c; FileMeta* file = next(c);) byHash_.add(*file);
    }
    return byHash_.first(hash.bytes, [&](const FileMeta& file) { return file.hash == hash; });
}

FileMeta* FileList::findUnsafe(u32 size, u32 date, const char* name) {
    if (byDetails_.startBuilding()) {
        for (Cursor c; FileMeta* file = next(c);) byDetails_.add(*file);
    }
    return byDetails_.first(detailsFor(size, date, name),
                            [&](const FileMeta& file) { return file.matches(size, date, name); });
}

void FileList::indexAdd(Meta* record) {
    auto& file = *static_cast<FileMeta*>(record);
    byHash_.add(file);
    byDetails_.add(file);
}

void FileList::indexRemove(Meta* record) {
    auto& file = *static_cast<FileMeta*>(record);
    byHash_.remove(file);
    byDetails_.remove(file);
}

void FileList::indexDrop() {
    byHash_.drop();
    byDetails_.drop();
}

void FileList::indexChange(Meta* record, const std::function<void()>& change) {
    auto& file = *static_cast<FileMeta*>(record);
    const HashKey hash = hashOf(file);
    const Details details = detailsOf(file);
    change();
    byHash_.rekey(file, hash);
    byDetails_.rekey(file, details);
}

FileList::Details FileList::detailsOf(const FileMeta& file) {
    return detailsFor(file.getSize(), file.date, file.getName());
}

FileList::Details FileList::detailsFor(u32 size, u32 date, const char* name) {
    return {size, date, std::hash<std::string_view>()(orEmpty(name))};
}
