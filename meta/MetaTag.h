// MetaTag, a named and typed value: the atom of everything that is said about a file, a server or a user.
#pragma once

#include <memory>
#include <vector>

#include "i4min/string/string.h"
#include "meta/BoolArray.h"
#include "meta/MD4Hash.h"
#include "meta/Serializable.h"
#include "meta/tagTable.h"

using MetaBlob = std::vector<u8>;

// Thread: that of the record which owns it. Owns its name and its value. Disk and wire form are the same:
//
//     bytes  field
//     1      type, see MetaTagType
//     2      length L of the name, u16
//     L      the name: for a row of tagTable one byte, the row's index; for a null name the letter n
//     rest   the value, see the classes below
//
// Values pass through pointers of these forms, by type; null is a zero value, and for a string a null text:
//
//     hash MD4Hash*, string char* (terminated), int u32*, float f32*, bool u8*, boolarray BoolArray*,
//     blob MetaBlob*
class MetaTag : public Serializable {
  public:
    ~MetaTag() override;

    // Null for an unknown type.
    static std::unique_ptr<MetaTag> makeTag(int type, const char* name, const void* value);
    // A tag of tagTable: the row's type and name. Null for a row that isn't there.
    static std::unique_ptr<MetaTag> makeTag(TagIndex index, const void* value);
    // Takes a tag off a stream. Null for a short stream, with no message, and for an unknown type, which is
    // told; the rest of the stream is then lost.
    static std::unique_ptr<MetaTag> readTag(i4_file& file);

    bool toNetwork(i4_file& file) const final { return toBytes(file); }
    bool fromNetwork(i4_file& file) final { return fromBytes(file); }
    bool toDisk(i4_file& file) final { return toBytes(file); }
    bool fromDisk(i4_file& file) final { return fromBytes(file); }
    u32 byteSize() const final { return 3 + nameLength() + valueSize(); }

    std::unique_ptr<MetaTag> clone() const;  // same name, value and id
    // The stored value, for a string its characters.
    virtual const void* getValue() const = 0;
    virtual void setValue(const void* value) = 0;
    // A text form in `dst` of `n` bytes. Returns `dst`, or null where there is no text.
    virtual char* printable(char* dst, i32 n) const = 0;

    u8 type() const { return type_; }
    // Row of tagTable, 0 for a tag with a name of its own. Off a stream it is any one-byte name, also one of
    // 24 and above, which has no row.
    u32 id() const { return id_; }
    const char* name() const { return name_; }  // may be null
    bool isNamed(const char* name) const;       // exactly; a null name is no name

    // The row's, else what the tag has of its own: its name, which may be null, and true.
    const char* displayName() const;
    bool flagA() const { return row() ? row()->flagA != 0 : true; }
    bool flagB() const { return row() ? row()->flagB != 0 : true; }

  protected:
    explicit MetaTag(MetaTagType type) : type_(type) {}
    virtual bool writeValue(i4_file& file) const = 0;
    virtual void readValue(i4_file& file) = 0;  // raises on a short stream
    virtual u32 valueSize() const = 0;

  private:
    bool toBytes(i4_file& file) const;
    bool fromBytes(i4_file& file);
    u32 nameLength() const;
    void setName(const char* name);
    const MetaTagRow* row() const { return id_ > 0 && id_ < tagRows ? &tagTable[id_] : nullptr; }

    // One-byte names, which are nearly all, lie in static memory: a hundred thousand records count.
    const char* name_ = nullptr;
    u8 id_ = 0;
    const MetaTagType type_;
    bool ownsName_ = false;
};

// The tags whose value is a plain T, and null the value that T begins with.
template <class T, MetaTagType tagType>
class MetaTagOf : public MetaTag {
  public:
    explicit MetaTagOf(const void* value) : MetaTag(tagType) { MetaTagOf::setValue(value); }
    const void* getValue() const override { return &value_; }
    void setValue(const void* value) override { value_ = value ? *static_cast<const T*>(value) : T(); }

  protected:
    T value_{};
};

// 16 raw bytes.
class MetaTagHash : public MetaTagOf<MD4Hash, META_TAG_HASH> {
  public:
    using MetaTagOf::MetaTagOf;
    char* printable(char* dst, i32 n) const override;

  protected:
    bool writeValue(i4_file& file) const override { return value_.write(file); }
    void readValue(i4_file& file) override { value_ = MD4Hash::read(file); }
    u32 valueSize() const override { return MD4Hash::streamSize; }
};

// u16 length, bytes.
class MetaTagString : public MetaTag {
  public:
    explicit MetaTagString(const void* value)
        : MetaTag(META_TAG_STRING), value_(static_cast<const char*>(value)) {}
    const void* getValue() const override { return value_.c_str(); }
    void setValue(const void* value) override { value_ = static_cast<const char*>(value); }
    char* printable(char* dst, i32 n) const override;

  protected:
    bool writeValue(i4_file& file) const override;
    void readValue(i4_file& file) override { value_ = i4_string(file); }
    u32 valueSize() const override { return static_cast<u32>(2 + value_.length()); }

  private:
    i4_string value_;
};

// u32.
class MetaTagInt : public MetaTagOf<u32, META_TAG_INT> {
  public:
    using MetaTagOf::MetaTagOf;
    char* printable(char* dst, i32 n) const override;  // as a signed number

  protected:
    bool writeValue(i4_file& file) const override { return file.write_32(value_) == 4; }
    void readValue(i4_file& file) override { value_ = file.read_32(); }
    u32 valueSize() const override { return 4; }
};

// IEEE 754 single.
class MetaTagFloat : public MetaTagOf<f32, META_TAG_FLOAT> {
  public:
    using MetaTagOf::MetaTagOf;
    char* printable(char* dst, i32 n) const override;

  protected:
    bool writeValue(i4_file& file) const override { return file.write_float(value_) == 4; }
    void readValue(i4_file& file) override { value_ = file.read_float(); }
    u32 valueSize() const override { return 4; }
};

// 1 byte; what isn't 0 is stored as 1.
class MetaTagBool : public MetaTagOf<u8, META_TAG_BOOL> {
  public:
    explicit MetaTagBool(const void* value) : MetaTagOf(nullptr) { MetaTagBool::setValue(value); }
    void setValue(const void* value) override { value_ = value && *static_cast<const u8*>(value) != 0; }
    char* printable(char* dst, i32 n) const override;

  protected:
    bool writeValue(i4_file& file) const override { return file.write_8(value_) == 1; }
    void readValue(i4_file& file) override { value_ = file.read_8() != 0; }
    u32 valueSize() const override { return 1; }
};

// See BoolArray; its byteSize counts a byte too many when it's empty.
class MetaTagBoolArray : public MetaTag {
  public:
    explicit MetaTagBoolArray(const void* value) : MetaTag(META_TAG_BOOLARRAY) {
        MetaTagBoolArray::setValue(value);
    }
    const void* getValue() const override { return &value_; }
    void setValue(const void* value) override;
    char* printable(char* dst, i32) const override { return dst; }

  protected:
    bool writeValue(i4_file& file) const override { return value_.write(file); }
    void readValue(i4_file& file) override { value_.read(file); }
    u32 valueSize() const override { return value_.byteSize(); }

  private:
    BoolArray value_;
};

// u32 size, bytes.
class MetaTagBlob : public MetaTagOf<MetaBlob, META_TAG_BLOB> {
  public:
    using MetaTagOf::MetaTagOf;
    char* printable(char* dst, i32) const override { return dst; }

  protected:
    bool writeValue(i4_file& file) const override;
    void readValue(i4_file& file) override;
    u32 valueSize() const override { return static_cast<u32>(4 + value_.size()); }
};
