// FileRecord, what the index knows of a file: its tags, kept in the bytes in which they go back to clients.
#pragma once

#include <memory>
#include <string_view>

#include "index/Bytes.h"
#include "meta/tagTable.h"
#include "protocol/TagSource.h"

// The name of the tag that counts a file's clients.
inline constexpr char availabilityCharacter = TAG_AVAILABILITY;
inline constexpr std::string_view availabilityName{&availabilityCharacter, 1};

// A tag on a stream; see MetaTag for its bytes.
struct EncodedTag {
    TagView view;
    ByteSpan bytes;  // all of it
};

// False where the bytes end within the tag or its type is unknown: what follows can't be told apart then.
bool readEncodedTag(ByteReader& in, EncodedTag& tag);

// Passes over a u32 count and so many tags; false where they can't be read. `each` gets every tag.
template <class Each>
bool readEncodedTags(ByteReader& in, Each each) {
    u32 count = in.read32();
    if (count > 0x7FFFFFFF) count = 0;
    for (EncodedTag tag; count > 0; --count) {
        if (!readEncodedTag(in, tag)) return false;
        each(tag);
    }
    return !in.failed();
}

// At most so many bytes of tags are kept of a file; a tag that doesn't fit is left out.
inline constexpr u32 recordBytesLimit = 2048;

// An immutable record. Owns its bytes.
class FileRecord {
  public:
    FileRecord() = default;

    // Reads a u32 count and the tags. Left out are tags without a name, those with a zero byte in a text, the
    // availability, which the index itself counts, and what is beyond the limit. False where the bytes can't
    // be read.
    bool read(ByteReader& in);

    ByteSpan tags() const { return {bytes_.get(), size_}; }
    u32 size() const { return size_; }
    bool hasName() const { return hasName_; }
    // Appends the network form of a file's record: hash, six zero bytes, count, tags, availability.
    void write(Bytes& out, const MD4Hash& hash, u32 availability) const;

  private:
    std::unique_ptr<u8[]> bytes_;
    u16 size_ = 0;
    u16 count_ = 0;
    bool hasName_ = false;
};

// The tags of a record, and its availability, as a search sees them. Borrows the record.
class FileRecordTags : public TagSource {
  public:
    FileRecordTags(const FileRecord& record, u32 availability)
        : tags_(record.tags()), in_(tags_), availability_(availability) {}
    void rewind() override;
    bool next(TagView& tag) override;

  private:
    const ByteSpan tags_;
    ByteReader in_;
    const u32 availability_;
    bool availabilityTold_ = false;
};
