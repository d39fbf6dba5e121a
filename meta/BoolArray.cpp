#include "meta/BoolArray.h"

#include <algorithm>

#include "i4min/file/file.h"

void BoolArray::setSize(i32 size) {
    size_ = std::clamp(size, 0, maxSize);
    bits_.assign(size_ == 0 ? 0 : static_cast<std::size_t>(size_ / 8 + 1), 0);
}

bool BoolArray::get(i32 i) const {
    return inside(i) && (bits_[static_cast<std::size_t>(i / 8)] >> (i % 8) & 1) != 0;
}

void BoolArray::set(i32 i, bool value) {
    if (!inside(i)) return;
    u8& byte = bits_[static_cast<std::size_t>(i / 8)];
    const int weight = 1 << (i % 8);
    byte = static_cast<u8>(value ? byte | weight : byte & ~weight);
}

void BoolArray::setAll(bool value) {
    std::fill(bits_.begin(), bits_.end(), static_cast<u8>(value ? 0xFF : 0));
}

void BoolArray::copyFrom(const BoolArray* other) {
    if (!other) {
        setAll(false);
    } else if (other != this) {
        size_ = other->size_;
        bits_ = other->bits_;
    }
}

std::string BoolArray::toText() const {
    std::string text(static_cast<std::size_t>(size_), '0');
    for (i32 i = 0; i < size_; ++i) {
        if (get(i)) text[static_cast<std::size_t>(i)] = '1';
    }
    return text;
}

bool BoolArray::operator==(const BoolArray& other) const {
    if (size_ != other.size_) return false;
    for (i32 i = 0; i < size_; ++i) {
        if (get(i) != other.get(i)) return false;
    }
    return true;
}

bool BoolArray::write(i4_file& file) const {
    return file.write_16(static_cast<u16>(size_)) == 2 && file.writeAll(bits_);
}

void BoolArray::read(i4_file& file) {
    setSize(0);
    const i32 size = file.read_16();
    if (size == 0) return;
    std::vector<u8> bits;
    const auto length = static_cast<u32>(size / 8 + 1);
    file.expect(length);
    bits.resize(length);
    file.readAll(bits);
    size_ = size;
    bits_ = std::move(bits);
}
