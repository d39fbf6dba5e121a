// FileList, a list of files: known.met, what is shared, search results.
#pragma once

#include <array>
#include <compare>

#include "meta/FileMeta.h"
#include "meta/MetaList.h"
#include "meta/RecordIndex.h"

// Thread: see MetaList. Look-ups go through indexes by hash and by size, date and name, so that these fields
// of a listed record change through RecordList::change alone.
class FileList : public RecordList<FileMeta> {
  public:
    using RecordList<FileMeta>::RecordList;

    // True, and nothing is added, if a record of that hash is there.
    virtual bool addUnique(FileMeta* file);

    // Deletes each record whose hash a later one has too. A hash of zero is none.
    void deleteRepeated();

    // The first record of that hash, or null.
    FileMeta* find(const MD4Hash& hash);
    // The first record that matches, or null.
    FileMeta* find(u32 size, u32 date, const char* name);
    // For a caller that holds lock().
    FileMeta* findUnsafe(const MD4Hash& hash) REQUIRES(this);
    FileMeta* findUnsafe(u32 size, u32 date, const char* name) REQUIRES(this);

  protected:
    void indexAdd(Meta* record) override;
    void indexRemove(Meta* record) override;
    void indexDrop() override;
    bool indexCovers(u32 records) const override {
        return byHash_.covers(records) && byDetails_.covers(records);
    }
    void indexChange(Meta* record, const std::function<void()>& change) override;

  private:
    struct Details {
        u32 size;
        u32 date;
        u64 name;  // its hash
        auto operator<=>(const Details&) const = default;
    };
    using HashKey = std::array<u8, 16>;
    static HashKey hashOf(const FileMeta& file) { return file.hash.bytes; }
    static Details detailsOf(const FileMeta& file);
    static Details detailsFor(u32 size, u32 date, const char* name);

    RecordIndex<FileMeta, HashKey, &FileList::hashOf> byHash_;
    RecordIndex<FileMeta, Details, &FileList::detailsOf> byDetails_;
};
