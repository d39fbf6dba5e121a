#include "meta/MetaTag.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <string>

#include "i4min/memory/error.h"

namespace {

static_assert(sizeof(MetaTag) == 2 * sizeof(char*) + 8, "the id lies behind the value");

bool write(i4_file& file, const Boxed<MD4Hash>& hash) { return hash->write(file); }
bool write(i4_file& file, u32 value) { return file.write_32(value) == 4; }
bool write(i4_file& file, f32 value) { return file.write_float(value) == 4; }
bool write(i4_file& file, bool value) { return file.write_8(value) == 1; }
bool write(i4_file& file, const Boxed<BoolArray>& bits) { return bits->write(file); }

bool write(i4_file& file, const i4_string& text) {
    try {
        text.write(file);
        return true;
    } catch (const i4_err&) {
        file.tell(i4_log::Tone::verbose, "**I4 error in MetaTagString::toBytes()\n");
        return false;
    }
}

bool write(i4_file& file, const Boxed<MetaBlob>& blob) {
    return file.write_32(static_cast<u32>(blob->size())) == 4 && file.writeAll(*blob);
}

BoolArray readBits(i4_file& file) {
    BoolArray bits;
    bits.read(file);
    return bits;
}

MetaBlob readBlob(i4_file& file) {
    // A stream that can't tell its length is believed one piece at a time.
    constexpr u32 piece = 64 * 1024;
    const u32 size = file.read_32();
    file.expect(size);
    MetaBlob bytes;
    if (file.bytesLeft()) bytes.reserve(size);
    while (bytes.size() < size) {
        const auto done = static_cast<u32>(bytes.size());
        const u32 next = std::min(piece, size - done);
        bytes.resize(done + next);
        file.readAll(std::span(bytes).last(next));
    }
    return bytes;
}

// Raises on a short stream.
MetaTag::Value readValue(int type, i4_file& file) {
    switch (type) {
        case META_TAG_HASH:
            return MD4Hash::read(file);
        case META_TAG_STRING:
            return i4_string(file);
        case META_TAG_INT:
            return file.read_32();
        case META_TAG_FLOAT:
            return file.read_float();
        case META_TAG_BOOL:
            return file.read_8() != 0;
        case META_TAG_BOOLARRAY:
            return readBits(file);
        default:
            return readBlob(file);
    }
}

u32 sizeOf(const Boxed<MD4Hash>&) { return MD4Hash::streamSize; }
u32 sizeOf(const i4_string& text) { return static_cast<u32>(2 + text.length()); }
u32 sizeOf(u32) { return 4; }
u32 sizeOf(f32) { return 4; }
u32 sizeOf(bool) { return 1; }
u32 sizeOf(const Boxed<BoolArray>& bits) { return bits->byteSize(); }
u32 sizeOf(const Boxed<MetaBlob>& blob) { return static_cast<u32>(4 + blob->size()); }

std::string textOf(const Boxed<MD4Hash>& hash) { return hash->toText(); }
std::string textOf(const i4_string& text) { return std::string(text.view()); }
std::string textOf(u32 value) { return std::to_string(static_cast<i32>(value)); }
std::string textOf(f32 value) { return std::to_string(value); }
std::string textOf(bool value) { return value ? "true" : "false"; }
template <class T>
std::string textOf(const Boxed<T>&) {
    return {};
}

}  // namespace

std::unique_ptr<MetaTag> MetaTag::makeTag(const char* name, Value value) {
    return std::make_unique<MetaTag>(name, std::move(value));
}

std::unique_ptr<MetaTag> MetaTag::makeTag(TagIndex index, Value value) {
    if (index == 0 || index >= tagRows) return nullptr;
    auto tag = makeTag(tagTable[index].wireName, std::move(value));
    if (tag->type() == tagTable[index].type) tag->id_ = index;
    return tag;
}

std::unique_ptr<MetaTag> MetaTag::readTag(i4_file& file) {
    try {
        const int type = file.read_8();
        if (type >= META_TAG_HASH && type <= META_TAG_BLOB) {
            auto tag = makeTag(nullptr, 0U);
            tag->readName(file);
            tag->value_ = readValue(type, file);
            return tag;
        }
        file.tell(i4_log::Tone::damage, "ERROR: unknown type MetaTag::makeTag() %d\n", type);
    } catch (const i4_err&) {
        return nullptr;
    }
    file.tell(i4_log::Tone::damage, "error in tag from bytes\n");
    return nullptr;
}

bool MetaTag::toNetwork(i4_file& file) const {
    try {
        if (file.write_8(type()) != 1) return false;
        i4_write_string(file, name_ ? name() : "n");
    } catch (const i4_err&) {
        file.tell(i4_log::Tone::verbose, "**I4 error in MetaTag::toBytes()\n");
        return false;
    }
    return std::visit([&](const auto& value) { return write(file, value); }, value_);
}

u32 MetaTag::byteSize() const {
    const std::size_t length = name_ ? i4_strlen(name()) : 1;
    return static_cast<u32>(3 + length) + std::visit([](const auto& value) { return sizeOf(value); }, value_);
}

// A lone n stands for no name. A NUL inside ends the name early: what is left of it counts.
void MetaTag::readName(i4_file& file) {
    const u16 length = file.read_16();
    if (length == 0xFFFF) i4_error()("read string error");
    if (length == 1) {
        const char name[] = {static_cast<char>(file.read_8()), 0};
        setName(name);
    } else {
        file.expect(length);
        std::string name(length, 0);
        file.readAll(i4_room(name));
        setName(name.c_str());
    }
    if (name_[0] && !name_[1]) id_ = static_cast<u8>(name_[0]);
    if (id_ != 'n') return;
    name_ = nullptr;
    id_ = 0;
}

std::unique_ptr<MetaTag> MetaTag::clone() const {
    auto copy = makeTag(name(), value_);
    copy->id_ = id_;
    return copy;
}

const char* MetaTag::text() const {
    const auto* text = std::get_if<i4_string>(&value_);
    return text ? text->c_str() : nullptr;
}

u32 MetaTag::getInt() const {
    if (const auto* real = std::get_if<f32>(&value_)) return std::bit_cast<u32>(*real);
    const auto* number = std::get_if<u32>(&value_);
    return number ? *number : 0;
}

char* MetaTag::printable(char* dst, i32 n) const {
    if (type() == META_TAG_BOOLARRAY || type() == META_TAG_BLOB) return dst;
    if (n <= 0 || (type() == META_TAG_STRING && !text())) return nullptr;
    const std::string text = std::visit([](const auto& value) { return textOf(value); }, value_);
    return i4_strncpy(dst, text.c_str(), static_cast<std::size_t>(n));
}

bool MetaTag::isNamed(const char* name) const { return name_ && name && std::strcmp(name_.get(), name) == 0; }

const char* MetaTag::displayName() const { return row() ? row()->displayName : name(); }

void MetaTag::setName(const char* name) {
    if (!name || !name[0] || !name[1]) {
        name_.reset(name ? oneByteName(static_cast<u8>(name[0])) : nullptr);
        return;
    }
    const std::size_t size = std::strlen(name) + 1;
    auto copy = std::make_unique_for_overwrite<char[]>(size);
    std::memcpy(copy.get(), name, size);
    name_.reset(copy.release());
}
