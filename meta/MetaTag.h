// MetaTag, a named and typed value: the atom of everything that is said about a file, a server or a user.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "i4min/file/file.h"
#include "i4min/string/string.h"
#include "meta/BoolArray.h"
#include "meta/MD4Hash.h"
#include "meta/tagTable.h"

using MetaBlob = std::vector<u8>;

// A value on the heap that is copied with its owner. Rare kinds of tags use it, so that all others stay
// small.
template <class T>
class Boxed {
  public:
    Boxed(T value = T()) : value_(std::make_unique<const T>(std::move(value))) {}
    Boxed(const Boxed& other) : Boxed(*other.value_) {}
    Boxed(Boxed&&) noexcept = default;
    Boxed& operator=(Boxed&&) noexcept = default;
    const T& operator*() const { return *value_; }
    const T* operator->() const { return value_.get(); }

  private:
    std::unique_ptr<const T> value_;  // never null, but where it was moved away
};

// Thread: that of the record which owns it. Owns its name and its value. Disk and wire form are the same:
//
//     bytes  field
//     1      type, see MetaTagType
//     2      length L of the name, u16
//     L      the name: for a row of tagTable one byte, the row's index; for a null name the letter n
//     rest   the value:
//            hash       16 raw bytes
//            string     u16 length, bytes; a null text counts as length 0
//            int        u32
//            float      IEEE 754 single
//            bool       1 byte; what isn't 0 is true
//            boolarray  see BoolArray; its byteSize counts a byte too many when it's empty
//            blob       u32 size, bytes
class MetaTag {
  public:
    // In the order of MetaTagType. An enumerator, such as a type or an index, is no value by itself.
    using AnyValue =
        std::variant<Boxed<MD4Hash>, i4_string, u32, f32, bool, Boxed<BoolArray>, Boxed<MetaBlob>>;
    struct Value : AnyValue {
        using AnyValue::AnyValue;
        template <class Enumerator>
        requires std::is_enum_v<Enumerator> Value(Enumerator)
        = delete;
    };

    MetaTag(const char* name, Value value) : value_(std::move(value)) { setName(name); }

    [[nodiscard]] static std::unique_ptr<MetaTag> makeTag(const char* name, Value value);
    // A tag of tagTable; one with just the row's name if the value is of another type than the row's. Null
    // for a row that isn't there.
    [[nodiscard]] static std::unique_ptr<MetaTag> makeTag(TagIndex index, Value value);
    // Takes a tag off a stream. Null for a short stream, with no message, and for an unknown type, which is
    // told; the rest of the stream is then lost.
    [[nodiscard]] static std::unique_ptr<MetaTag> readTag(i4_file& file);

    [[nodiscard]] bool toNetwork(i4_file& file) const;
    [[nodiscard]] bool toDisk(i4_file& file) const { return toNetwork(file); }
    u32 byteSize() const;

    [[nodiscard]] std::unique_ptr<MetaTag> clone() const;  // same name, value and id
    const Value& getValue() const { return value_; }
    void setValue(Value value) { value_ = std::move(value); }
    const char* text() const;  // null but for a string
    u32 getInt() const;        // the four bytes of an int or a float, else 0
    // A text form in `dst` of `n` bytes. Returns `dst`, or null where there is no text; for bits and blobs
    // `dst` stays as it is. An int is printed as a signed number.
    char* printable(char* dst, i32 n) const;

    u8 type() const { return typeOf(value_); }
    static u8 typeOf(const Value& value) { return static_cast<u8>(value.index() + META_TAG_HASH); }
    // Row of tagTable, 0 for a tag with a name of its own. Off a stream it is any one-byte name, also one of
    // 24 and above, which has no row.
    u32 id() const { return id_; }
    const char* name() const { return name_.get(); }  // may be null
    bool isNamed(const char* name) const;             // exactly; a null name is no name

    // The row's, else what the tag has of its own: its name, which may be null, and true.
    const char* displayName() const;
    bool flagA() const { return row() ? row()->flagA != 0 : true; }
    bool flagB() const { return row() ? row()->flagB != 0 : true; }

  private:
    struct FreesLongName {
        void operator()(const char* name) const {
            if (name[0] && name[1]) std::default_delete<const char[]>()(name);
        }
    };
    void readName(i4_file& file);
    void setName(const char* name);
    const MetaTagRow* row() const { return id_ > 0 && id_ < tagRows ? &tagTable[id_] : nullptr; }

    // One-byte names, which are nearly all, lie in static memory: a hundred thousand records count. So does
    // the room behind the value, in which the id lies.
    std::unique_ptr<const char[], FreesLongName> name_;
    [[no_unique_address]] Value value_;
    u8 id_ = 0;
};
