// FileMeta, what is said about a file.
#pragma once

#include <memory>
#include <vector>

#include "meta/MD4Hash.h"
#include "meta/Meta.h"

// A record of a file, with the tags TAG_NAME and TAG_SIZE. Thread, ownership and errors: see Meta.
//
//     bytes    disk form                      bytes  network form
//     4        date, u32                      16     hash
//     16       hash                           4      0
//     2        count n of part hashes, u16    2      0
//     16 x n   the part hashes, in order      ...    the record, see Meta
//     ...      the record, see Meta
class FileMeta : public Meta {
  public:
    FileMeta() = default;
    // A record with copies of the other's tags, and nothing else of it.
    static std::unique_ptr<FileMeta> withTagsOf(const Meta& other);

    [[nodiscard]] bool toNetwork(i4_file& file) const override;
    [[nodiscard]] bool fromNetwork(i4_file& file) override;
    [[nodiscard]] bool toDisk(i4_file& file) override;
    [[nodiscard]] bool fromDisk(i4_file& file) override;
    u32 byteSize() const override { return Meta::byteSize() + 22; }
    // The tags, and of another FileMeta path and hash; its part hashes go behind those that are here. The
    // date stays.
    void copyFrom(const Meta* other) override;

    const char* getName() const { return getText(TAG_NAME); }  // null if it has none
    void setName(const char* name) { setText(TAG_NAME, name); }
    u32 getSize() const { return getInt(TAG_SIZE); }
    void setPath(const char* text) { path = text; }
    bool matches(u32 size, u32 fileDate,
                 const char* name) const;  // exactly; false for a record without a name

    // u16 count and the hashes.
    [[nodiscard]] bool writePartHashes(i4_file& file) const;
    void readPartHashes(i4_file& file);  // instead of what was here; raises on a short stream
    u32 partHashesSize() const { return static_cast<u32>(2 + 16 * partHashes.size()); }

    u32 date = 0;    // modification time, seconds since 1970
    i4_string path;  // where the file lies on this machine; in no stream
    MD4Hash hash;    // all zero until it's known
    std::vector<MD4Hash> partHashes;
};
