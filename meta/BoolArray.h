// BoolArray, packed bits: which parts of a file somebody has.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "i4min/memory/types.h"

class i4_file;

// Bit i lies in byte i / 8 at weight 1 << (i % 8), and the buffer has size / 8 + 1 bytes: where the size is a
// multiple of 8 that is one spare byte, which travels on the wire too. Empty arrays have no buffer.
// Thread: one at a time.
class BoolArray {
  public:
    static constexpr i32 maxSize = 65535;  // what the stream form can tell

    BoolArray() = default;
    explicit BoolArray(i32 size) { setSize(size); }  // all false

    void setSize(i32 size);  // clears all bits; the size is kept within 0 to maxSize
    i32 size() const { return size_; }
    bool get(i32 i) const;        // false outside of the array
    void set(i32 i, bool value);  // nothing outside of the array
    void setAll(bool value);
    void copyFrom(const BoolArray* other);          // null only clears all bits
    std::string toText() const;                     // a character for each bit, 1 or 0
    bool operator==(const BoolArray& other) const;  // size and bits; spare bits don't count

    // u16 size, then unless it's 0 the buffer.
    u32 byteSize() const { return static_cast<u32>(size_ / 8 + 3); }
    bool write(i4_file& file) const;
    void read(i4_file& file);  // raises on a short stream, and is empty then

  private:
    bool inside(i32 i) const { return i >= 0 && i < size_; }

    i32 size_ = 0;
    std::vector<u8> bits_;
};
