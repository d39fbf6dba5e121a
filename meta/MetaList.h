// MetaList, a list of records that threads share and that saves itself to a file.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "i4min/file/Disk.h"
#include "i4min/memory/LLsafe.h"
#include "meta/Meta.h"

// The condition of MetaList::search. Called under the lock of the list.
class MetaMatcher {
  public:
    virtual bool matches(const Meta& record) const = 0;

  protected:
    ~MetaMatcher() = default;
};

// How reading a list's file ended.
enum class LoadResult {
    whole,
    missing,  // there is no such file
    damaged,  // it can't be read, or not to its end: what was read stays in the list
};

// An ordered list of records. It owns none of them: who owns a list's records deletes them first.
// Thread: any, for single calls. A walk, or calls that belong together, stand inside lock() and use only what
// REQUIRES it: the lock is not recursive. No call takes the locks of two lists at once. A list that only one
// thread uses, also while it has locked another, is made with LockRank::none.
//
//     bytes  network form              bytes  disk form, and so the whole of a file
//     4      count of records, u32     1      the byte 14
//     ...    the records               4      count of records, u32
//                                      ...    the records, in their disk form
//
// A count with its top bit set counts as 0. Subclasses keep indexes beside the list: see RecordList::change
// for a record whose key changes.
class CAPABILITY("list") MetaList : public Serializable {
  public:
    using Cursor = LL<Meta>::Cursor;
    using Compare = bool (*)(const Meta* a, const Meta* b);

    explicit MetaList(LockRank rank = LockRank::metaList) : list_(rank) {}
    MetaList(const MetaList&) = delete;
    MetaList& operator=(const MetaList&) = delete;
    ~MetaList() override = default;

    // Reading adds to what is there, and keeps what was read before a failure. fromDisk lets an i4_err of the
    // first five bytes pass.
    [[nodiscard]] bool toNetwork(i4_file& file) const override;
    [[nodiscard]] bool fromNetwork(i4_file& file) override;
    [[nodiscard]] bool toDisk(i4_file& file) override;
    [[nodiscard]] bool fromDisk(i4_file& file) override;
    u32 byteSize() const override;
    virtual std::unique_ptr<Meta> newMeta();  // an empty record of the kind that this list holds
    // The name is one that the user typed: see i4_translate_path. Damage is reported to the log.
    [[nodiscard]] virtual LoadResult load(Disk& disk, const char* name, i4_log* log = nullptr);
    // Saves through saveFile. Returns the reason why it failed, empty on success.
    [[nodiscard]] virtual std::string save(Disk& disk, const char* name);
    virtual void copyFrom(MetaList* other);   // copies of the other's records instead of what was here
    virtual void removeAll(MetaList* other);  // by pointer

    void lock() const ACQUIRE() NO_THREAD_SAFETY_ANALYSIS { list_.lock(); }
    void unlock() const RELEASE() NO_THREAD_SAFETY_ANALYSIS { list_.unlock(); }

    void add(Meta* record);              // null is ignored
    void addAll(const MetaList& other);  // the other is not locked
    bool remove(Meta* record);           // by pointer; true if it was there
    Meta* get(u16 index) const;          // null past the end
    u32 count() const;                   // no walk
    void clear();                        // deletes no record
    void deleteAll();                    // deletes every record
    void print(i4_log& log) const;
    // Adds the records that match to `out`, in order, at most `limit` of them; 0 is no limit.
    void search(const MetaMatcher& matcher, MetaList& out, u32 limit);
    void sort(Compare compare);  // see LL::sort

    // For a caller that holds lock().
    Meta* next(Cursor& cursor) const REQUIRES(this) { return list_.next(cursor); }
    u32 countUnsafe() const REQUIRES(this) { return count_; }
    void addUnsafe(Meta* record) REQUIRES(this);
    bool removeUnsafe(Meta* record) REQUIRES(this);
    Cursor removeNext(Cursor cursor) REQUIRES(this);  // see LL::removeNext
    void sortUnsafe(Compare compare) REQUIRES(this);
    void clearUnsafe() REQUIRES(this);

    // For reading alone: what changes the list goes through the list itself, for its indexes' sake.
    const LLsafe<Meta>& getList() const { return list_; }

  protected:
    // What a subclass's indexes hear, under the lock.
    virtual void indexAdd(Meta*) {}
    virtual void indexRemove(Meta*) {}
    virtual void indexDrop() {}                           // the order has changed, or all records have gone
    virtual bool indexCovers(u32) const { return true; }  // that many records
    // Runs `change`, which may change the record's keys.
    virtual void indexChange(Meta*, const std::function<void()>& change) { change(); }

    std::vector<Meta*> pointers() const;

  private:
    bool readRecords(i4_file& file, StreamForm form);
    // Asserts that the count, the list and the indexes agree; each change of a debug build runs it.
    void checkInvariants() const REQUIRES(this);

    mutable LLsafe<Meta> list_;
    u32 count_ = 0;
};

// Holds a list together with its records, for a list that is passed from hand to hand.
struct DeletesRecords {
    template <class List>
    void operator()(List* list) const {
        const std::unique_ptr<List> owned(list);
        owned->deleteAll();
    }
};
template <class List>
using OwnedList = std::unique_ptr<List, DeletesRecords>;

// A list off a stream with its records; null where it can't be read.
template <class List>
[[nodiscard]] OwnedList<List> readList(i4_file& stream) {
    OwnedList<List> list(new List);
    if (!list->fromNetwork(stream)) list.reset();
    return list;
}

// The typed face of a MetaList whose records are all of one kind.
template <class Record>
class RecordList : public MetaList {
  public:
    using MetaList::MetaList;

    std::unique_ptr<Meta> newMeta() override { return std::make_unique<Record>(); }

    void add(Record* record) { MetaList::add(record); }
    void addAll(const RecordList& other) { MetaList::addAll(other); }
    Record* get(u16 index) const { return static_cast<Record*>(MetaList::get(index)); }
    // Changes a record that may be in this list, under its lock. `change` takes a Record&. Whatever an index
    // goes by is changed only through here while a record is listed; a record in two lists, in both.
    template <class Change>
    void change(Record* record, Change change) {
        const i4_guard guard(*this);
        indexChange(record, [&] { change(*record); });
    }
    // The records as they stand now.
    std::vector<Record*> snapshot() const {
        std::vector<Record*> records;
        for (Meta* record : pointers()) records.push_back(static_cast<Record*>(record));
        return records;
    }

    Record* next(Cursor& cursor) const REQUIRES(this) { return static_cast<Record*>(MetaList::next(cursor)); }
    void addUnsafe(Record* record) REQUIRES(this) { MetaList::addUnsafe(record); }
};
