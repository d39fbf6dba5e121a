// Collection, a file that lists other files.
#pragma once

#include "meta/FileList.h"

struct Core;

// The members of one collection, and its own record. Shared like any other file, and known by its first
// bytes.
// Thread: any for the members, see MetaList; `self`, load(), save() and store() one at a time.
// Owns: its members.
//
//     offset  bytes   field
//     0       2       10
//     2       10      "collectio2"
//     12      varies  self, in the disk form of FileMeta
//     then    1       14
//     then    4       count of members, u32
//     then    varies  the members, each in the disk form of FileMeta
class Collection : public FileList {
  public:
    static constexpr u32 maxFile = 32 * 1024 * 1024;  // a larger file isn't loaded

    explicit Collection(Core& core) : core_(core) {}
    ~Collection() override;

    // Instead of what was here. Paths are taken exactly as they stand.
    LoadResult load(Disk& disk, const char* path, i4_log* log = nullptr) override;
    [[nodiscard]] std::string save(Disk& disk, const char* path) override;
    // The same from the bytes of a file: false if they don't read whole. What was read stays.
    bool read(i4_file& file);
    // Whether a record is of the type of collections, and not too large for one.
    static bool isOne(const FileMeta& record);
    // Whether a file of this record, which names its path, is a whole collection that stores just the hash of
    // the record: its own bytes have another.
    static bool stores(Core& core, const FileMeta& record);

    // Saves the collection into the incoming directory under the name that `self` has. `self` then says what
    // the file is: type, path, size, hash and part hashes; but the record in the file holds the hash from
    // before. False if it can't be saved or read again.
    bool store();
    // Asks for each member to be downloaded.
    void fetchAll();

    FileMeta self;

  private:
    Core& core_;
};
