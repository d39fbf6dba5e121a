// filters.txt is plain text with one filter per line. Lines end in LF or CR LF.
#include "engine/FilterList.h"

#include <memory>
#include <string>
#include <vector>

#include "core/LineReader.h"
#include "meta/FileList.h"

namespace {

constexpr std::size_t longestLine = 255;

}  // namespace

bool FilterList::load(Disk& disk, const char* path) {
    i4_lock guard(lock_);
    expression_.clear();
    LineReader reader(disk, path, longestLine);
    if (!reader.isOpen()) return false;
    for (std::string line; reader.next(line);) {
        if (!line.empty()) expression_.add(std::make_unique<SN_FindStr>(line.c_str()), SEARCH_OR);
    }
    return true;
}

bool FilterList::matches(const FileMeta& file) const {
    i4_lock guard(lock_);
    return matchesUnsafe(file);
}

bool FilterList::matchesUnsafe(const FileMeta& file) const {
    return expression_.root() && expression_.matches(file);
}

void FilterList::filter(FileList& list) const {
    std::vector<std::unique_ptr<FileMeta>> removed;
    const i4_guard listGuard(list);
    i4_lock guard(lock_);
    FileList::Cursor before;
    FileList::Cursor here;
    while (FileMeta* file = list.next(here)) {
        if (matchesUnsafe(*file)) {
            removed.emplace_back(file);
            here = list.removeNext(before);
        }
        before = here;
    }
}
