// Meta, a record: an ordered bag of tags.
#pragma once

#include <bit>
#include <memory>
#include <span>
#include <vector>

#include "meta/MetaTag.h"
#include "meta/Serializable.h"

// Owns its tags. Thread: none of its own; a record that threads share is used under the lock of the list that
// holds it. A name may stand twice when a stream says so: look-ups find the first, and pass over tags without
// a name. Names are compared exactly.
//
//     bytes  field
//     4      count of tags, u32; with its top bit set it counts as 0
//     ...    the tags, see MetaTag
class Meta : public Serializable {
  public:
    using Tags = std::vector<std::unique_ptr<MetaTag>>;

    Meta() = default;
    Meta(const Meta&) = delete;
    Meta& operator=(const Meta&) = delete;

    // A record from the network keeps at most this many tags, and at most this many bytes of them.
    static constexpr std::size_t mostTags = 256;
    static constexpr u32 mostTagBytes = 16 * 1024;

    // Reading keeps what was read before a failure. From the network it adds to what is there, and drops tags
    // beyond the limits; from disk it replaces it.
    [[nodiscard]] bool toNetwork(i4_file& file) const override;
    [[nodiscard]] bool fromNetwork(i4_file& file) override;
    [[nodiscard]] bool toDisk(i4_file& file) override;
    [[nodiscard]] bool fromDisk(i4_file& file) override;
    u32 byteSize() const override;
    virtual void copyFrom(const Meta* other);  // null does nothing

    MetaTag* findTag(TagKey key) const;
    void addTag(std::unique_ptr<MetaTag> tag);           // null is ignored
    bool addTag(TagKey key, MetaTag::Value value);       // false if the name is there
    bool removeTag(TagKey key);                          // the first of that name; false if there is none
    void removeTags(std::span<const TagIndex> indexes);  // every tag of one of these names
    void clearTags();

    // setTagValue is false, and leaves `value` alone, where there is no tag of that name, or one of another
    // type. setTag adds what isn't there, and puts a new tag into the place of one of another type: records
    // come from strangers.
    [[nodiscard]] bool setTagValue(TagKey key, MetaTag::Value&& value);
    void setTag(TagKey key, MetaTag::Value value);
    void setInt(TagKey key, u32 value) { setTag(key, value); }
    void setText(TagKey key, const char* value) { setTag(key, value); }

    // The value of a tag of just that type, else null.
    template <class T>
    const T* getValue(TagKey key) const {
        const MetaTag* tag = findTag(key);
        return tag ? std::get_if<T>(&tag->getValue()) : nullptr;
    }
    const char* getText(TagKey key) const;  // null but for a string tag
    // The four bytes of an int or float tag, taken as the asked type; 0 for other types and for none.
    u32 getInt(TagKey key) const;
    f32 getFloat(TagKey key) const { return std::bit_cast<f32>(getInt(key)); }

    char* printable(TagKey key, char* dst, i32 n) const;  // an empty text if there is no such tag
    void print(i4_log& log) const;
    const Tags& getTags() const { return tags_; }

  private:
    // Reads a count and tags. Each tag goes to `keep`.
    template <class Keep>
    bool readTags(i4_file& file, bool& damaged, Keep keep);
    Tags::const_iterator find(TagKey key) const;
    void place(TagKey key, std::unique_ptr<MetaTag> tag);  // instead of that tag, or at the end

    Tags tags_;  // none is null
};

// A record of the same kind with what copyFrom() takes over.
template <class Record>
[[nodiscard]] std::unique_ptr<Record> copyOf(const Record& record) {
    auto copy = std::make_unique<Record>();
    copy->copyFrom(&record);
    return copy;
}
