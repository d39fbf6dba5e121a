// RecordIndex, the index beside a list of records, and IndexedList, a list that has some.
#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <set>
#include <tuple>
#include <utility>

#include "i4min/memory/types.h"
#include "meta/MetaList.h"

// Finds the first record of a key, in the order of the list, in logarithmic time whatever the keys are: they
// may come from a stranger who chose them. It isn't built before somebody looks something up, so that a list
// which is only walked pays nothing. An entry whose record has changed its key behind the index's back is
// passed over, never returned. Thread: under the lock of its list.
template <class Record, class KeyType, KeyType (*keyFunction)(const Record&)>
class RecordIndex {
  public:
    using Key = KeyType;
    static Key keyOf(const Record& record) { return keyFunction(record); }

    void drop() {
        entries_.clear();
        built_ = false;
    }
    // True if it isn't built: the caller then adds every record of the list, in order.
    bool startBuilding() { return !std::exchange(built_, true); }
    // Nothing unless it's built.
    void add(Record& record) {
        if (built_) entries_.insert({keyOf(record), ++last_, &record});
    }
    // Takes the first entry of the record out.
    void remove(const Record& record) {
        if (!built_) return;
        auto entry = find(keyOf(record), record);
        if (entry == entries_.end()) entry = findByWalk(record);
        if (entry != entries_.end()) entries_.erase(entry);
    }
    // Moves the record's entries from the key that it had. The places in the order stay.
    void rekey(Record& record, const Key& old) {
        const Key now = keyOf(record);
        if (!built_ || now == old) return;
        for (auto entry = find(old, record); entry != entries_.end(); entry = find(old, record)) {
            const u64 place = entry->place;
            entries_.erase(entry);
            entries_.insert({now, place, &record});
        }
    }
    // The first record of that key, or null. `matches` has the last word.
    template <class Matches>
    Record* first(const Key& key, Matches matches) const {
        for (auto entry = entries_.lower_bound({key, 0, nullptr});
             entry != entries_.end() && entry->key == key; ++entry) {
            if (matches(*entry->record)) return entry->record;
        }
        return nullptr;
    }

    // Whether there is an entry for each of the list's records; true unless it's built.
    bool covers(std::size_t records) const { return !built_ || entries_.size() == records; }

  private:
    struct Entry {
        Key key;
        u64 place;  // rises along the list
        Record* record;
        bool operator<(const Entry& other) const {
            return std::tie(key, place) < std::tie(other.key, other.place);
        }
    };
    using Entries = std::set<Entry>;

    typename Entries::iterator find(const Key& key, const Record& record) const {
        for (auto entry = entries_.lower_bound({key, 0, nullptr});
             entry != entries_.end() && entry->key == key; ++entry) {
            if (entry->record == &record) return entry;
        }
        return entries_.end();
    }
    typename Entries::iterator findByWalk(const Record& record) const {
        auto found = entries_.end();
        for (auto entry = entries_.begin(); entry != entries_.end(); ++entry) {
            if (entry->record == &record && (found == entries_.end() || entry->place < found->place)) {
                found = entry;
            }
        }
        return found;
    }

    Entries entries_;
    u64 last_ = 0;
    bool built_ = false;
};

template <class Record>
std::array<u8, 16> hashKeyOf(const Record& record) {
    return record.hash.bytes;
}
template <class Record>
using HashIndex = RecordIndex<Record, std::array<u8, 16>, hashKeyOf<Record>>;

// A list with one or more indexes, whose keys are of different types. A field that an index goes by changes
// in a listed record through RecordList::change alone. Thread: see MetaList.
template <class Record, class... Indexes>
class IndexedList : public RecordList<Record> {
  public:
    using RecordList<Record>::RecordList;

  protected:
    // The first record of the key for which `matches` holds, or null. For a caller that holds lock().
    template <class Index, class Matches>
    Record* firstOf(const typename Index::Key& key, Matches matches) REQUIRES(this) {
        Index& index = std::get<Index>(indexes_);
        if (index.startBuilding()) {
            for (MetaList::Cursor c; Record* record = this->next(c);) index.add(*record);
        }
        return index.first(key, matches);
    }

    void indexAdd(Meta* record) override { (std::get<Indexes>(indexes_).add(typed(record)), ...); }
    void indexRemove(Meta* record) override { (std::get<Indexes>(indexes_).remove(typed(record)), ...); }
    void indexDrop() override { (std::get<Indexes>(indexes_).drop(), ...); }
    bool indexCovers(u32 records) const override {
        return (std::get<Indexes>(indexes_).covers(records) && ...);
    }
    void indexChange(Meta* record, const std::function<void()>& change) override {
        const std::tuple<typename Indexes::Key...> old(Indexes::keyOf(typed(record))...);
        change();
        (std::get<Indexes>(indexes_).rekey(typed(record), std::get<typename Indexes::Key>(old)), ...);
    }

  private:
    static Record& typed(Meta* record) { return *static_cast<Record*>(record); }

    std::tuple<Indexes...> indexes_;
};
