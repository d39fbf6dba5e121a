#include "meta/MetaList.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <string>
#include <unordered_map>

#include "i4min/file/buffered_file.h"
#include "i4min/file/save_file.h"
#include "i4min/memory/debug_build.h"

namespace {

constexpr u8 diskMark = 14;

// A file that is read in large pieces, since records are read a byte at a time. Each string asks what is
// left, so the answer comes from the length that the file had when it was opened, not from the system.
class RecordFile : public i4_buffered_file_class {
  public:
    RecordFile(std::unique_ptr<i4_file> file, std::optional<u32> length)
        : i4_buffered_file_class(std::move(file), 64 * 1024, 0), length_(length) {}
    std::optional<u32> bytesLeft() override {
        if (!length_) return i4_buffered_file_class::bytesLeft();
        return *length_ - std::min(*length_, tell());
    }

  private:
    const std::optional<u32> length_;
};

std::string translated(const char* name) {
    std::string path(std::strlen(name) + 1, 0);  // a rewritten name is never longer
    i4_translate_path(name, path.data(), path.size());
    path.resize(std::strlen(path.c_str()));
    return path;
}

}  // namespace

bool MetaList::toNetwork(i4_file& file) const { return saveList(list_, file, StreamForm::network); }

bool MetaList::toDisk(i4_file& file) {
    return file.write_8(diskMark) == 1 && saveList(list_, file, StreamForm::disk);
}

bool MetaList::fromNetwork(i4_file& file) {
    return i4_attempt([&] { return readRecords(file, StreamForm::network); });
}

bool MetaList::fromDisk(i4_file& file) {
    return file.read_8() == diskMark && readRecords(file, StreamForm::disk);
}

// The count needs no bound of its own: nothing is taken for it in advance, and each turn reads a record or
// ends.
bool MetaList::readRecords(i4_file& file, StreamForm form) {
    const auto count = static_cast<i32>(file.read_32());
    for (i32 i = 0; i < count; ++i) {
        std::unique_ptr<Meta> record = newMeta();
        if (!(form == StreamForm::disk ? record->fromDisk(file) : record->fromNetwork(file))) {
            file.tell(i4_log::Tone::verbose, "meta #:%d, n=%d\n", count, i);
            if (form == StreamForm::disk) {
                file.tell(i4_log::Tone::plain, "ERROR: MetaList::fromDisk()\n");
            } else {
                file.tell(i4_log::Tone::verbose, "ERROR: MetaList::fromNetwork()\n");
            }
            return false;
        }
        add(record.release());
    }
    return true;
}

u32 MetaList::byteSize() const {
    const i4_guard guard(*this);
    u32 size = 4;
    for (Cursor c; const Meta* record = next(c);) size += record->byteSize();
    return size;
}

std::unique_ptr<Meta> MetaList::newMeta() { return std::make_unique<Meta>(); }

LoadResult MetaList::load(Disk& disk, const char* name, i4_log* log) {
    std::unique_ptr<i4_file> file = disk.open(translated(name).c_str(), I4_FILE_READ);
    if (!file) return errno == ENOENT || errno == ENOTDIR ? LoadResult::missing : LoadResult::damaged;
    const std::optional<u32> length = file->bytesLeft();
    RecordFile reader(std::move(file), length);
    reader.setLog(log);
    return i4_attempt([&] { return fromDisk(reader); }) ? LoadResult::whole : LoadResult::damaged;
}

std::string MetaList::save(Disk& disk, const char* name) {
    return saveFile(disk, translated(name).c_str(), [this](i4_file& file) { return toDisk(file); });
}

void MetaList::copyFrom(MetaList* other) {
    if (!other) return;
    std::vector<std::unique_ptr<Meta>> copies;
    {
        const i4_guard guard(*other);
        copies.reserve(other->countUnsafe());
        for (Cursor c; const Meta* record = other->next(c);) {
            copies.push_back(newMeta());
            copies.back()->copyFrom(record);
        }
    }
    const i4_guard guard(*this);
    clearUnsafe();
    for (std::unique_ptr<Meta>& copy : copies) addUnsafe(copy.release());
}

void MetaList::removeAll(MetaList* other) {
    // One walk, however long both are: each record goes as often as the other list has it.
    std::unordered_map<Meta*, u32> times;
    for (Meta* record : other->pointers()) ++times[record];
    const i4_guard guard(*this);
    for (Cursor before, at; Meta *record = next(at);) {
        const auto found = times.find(record);
        if (found == times.end() || found->second == 0) {
            before = at;
            continue;
        }
        --found->second;
        at = before = removeNext(before);
    }
}

void MetaList::add(Meta* record) {
    const i4_guard guard(*this);
    addUnsafe(record);
}

void MetaList::addAll(const MetaList& other) {
    const i4_guard guard(*this);
    for (Cursor c; Meta* record = other.list_.next(c);) addUnsafe(record);
}

bool MetaList::remove(Meta* record) {
    const i4_guard guard(*this);
    return removeUnsafe(record);
}

Meta* MetaList::get(u16 index) const {
    const i4_guard guard(*this);
    return list_.LL<Meta>::getAt(index);
}

u32 MetaList::count() const {
    const i4_guard guard(*this);
    return count_;
}

void MetaList::clear() {
    const i4_guard guard(*this);
    clearUnsafe();
}

void MetaList::deleteAll() {
    const i4_guard guard(*this);
    indexDrop();
    count_ = 0;
    ::deleteAll(list_);
}

void MetaList::print(i4_log& log) const {
    const i4_guard guard(*this);
    int position = 0;
    for (Cursor c; const Meta* record = next(c);) {
        log.tell(i4_log::Tone::plain, ("\nMeta (" + std::to_string(position++) + ")\n").c_str());
        record->print(log);
    }
}

void MetaList::search(const MetaMatcher& matcher, MetaList& out, u32 limit) {
    std::vector<Meta*> found;
    {
        const i4_guard guard(*this);
        for (Cursor c; Meta* record = next(c);) {
            if (!matcher.matches(*record)) continue;
            found.push_back(record);
            if (found.size() == limit) break;
        }
    }
    for (Meta* record : found) out.add(record);
}

void MetaList::sort(Compare compare) {
    const i4_guard guard(*this);
    sortUnsafe(compare);
}

void MetaList::addUnsafe(Meta* record) {
    if (!record) return;
    list_.LL<Meta>::add(record);
    ++count_;
    indexAdd(record);
    checkInvariants();
}

bool MetaList::removeUnsafe(Meta* record) {
    if (!list_.LL<Meta>::remove(record)) return false;
    --count_;
    indexRemove(record);
    checkInvariants();
    return true;
}

MetaList::Cursor MetaList::removeNext(Cursor cursor) {
    Cursor behind = cursor;
    if (Meta* record = next(behind)) {
        --count_;
        indexRemove(record);
    }
    cursor = list_.LL<Meta>::removeNext(cursor);
    checkInvariants();
    return cursor;
}

void MetaList::sortUnsafe(Compare compare) {
    list_.LL<Meta>::sort(compare);
    indexDrop();
}

void MetaList::clearUnsafe() {
    list_.LL<Meta>::clear();
    count_ = 0;
    indexDrop();
}

void MetaList::checkInvariants() const {
    if constexpr (debugBuild) {
        [[maybe_unused]] constexpr u32 shortList = 64;  // a longer one isn't walked
        assert(count_ > shortList || list_.LL<Meta>::count() == count_);
        assert(indexCovers(count_));
    }
}

std::vector<Meta*> MetaList::pointers() const {
    const i4_guard guard(*this);
    std::vector<Meta*> records;
    records.reserve(count_);
    for (Cursor c; Meta* record = next(c);) records.push_back(record);
    return records;
}
