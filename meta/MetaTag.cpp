#include "meta/MetaTag.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

std::unique_ptr<MetaTag> newTag(int type, const void* value) {
    switch (type) {
        case META_TAG_HASH:
            return std::make_unique<MetaTagHash>(value);
        case META_TAG_STRING:
            return std::make_unique<MetaTagString>(value);
        case META_TAG_INT:
            return std::make_unique<MetaTagInt>(value);
        case META_TAG_FLOAT:
            return std::make_unique<MetaTagFloat>(value);
        case META_TAG_BOOL:
            return std::make_unique<MetaTagBool>(value);
        case META_TAG_BOOLARRAY:
            return std::make_unique<MetaTagBoolArray>(value);
        case META_TAG_BLOB:
            return std::make_unique<MetaTagBlob>(value);
        default:
            return nullptr;
    }
}

char* copyText(char* dst, i32 n, const char* text) {
    if (n <= 0) return nullptr;
    return i4_strncpy(dst, text, static_cast<std::size_t>(n));
}

}  // namespace

MetaTag::~MetaTag() {
    if (ownsName_) delete[] name_;
}

std::unique_ptr<MetaTag> MetaTag::makeTag(int type, const char* name, const void* value) {
    auto tag = newTag(type, value);
    if (tag) tag->setName(name);
    return tag;
}

std::unique_ptr<MetaTag> MetaTag::makeTag(TagIndex index, const void* value) {
    if (index == 0 || index >= tagRows) return nullptr;
    auto tag = makeTag(tagTable[index].type, tagTable[index].wireName, value);
    tag->id_ = index;
    return tag;
}

std::unique_ptr<MetaTag> MetaTag::readTag(i4_file& file) {
    try {
        const int type = file.read_8();
        auto tag = newTag(type, nullptr);
        if (!tag) file.tell(i4_log::Tone::damage, "ERROR: unknown type MetaTag::makeTag() %d\n", type);
        if (tag && tag->fromBytes(file)) return tag;
    } catch (const i4_err&) {
        return nullptr;
    }
    file.tell(i4_log::Tone::damage, "error in tag from bytes\n");
    return nullptr;
}

bool MetaTag::toBytes(i4_file& file) const {
    try {
        if (file.write_8(type_) != 1) return false;
        i4_write_string(file, name_ ? name_ : "n");
    } catch (const i4_err&) {
        file.tell(i4_log::Tone::verbose, "**I4 error in MetaTag::toBytes()\n");
        return false;
    }
    return writeValue(file);
}

bool MetaTag::fromBytes(i4_file& file) {
    setName(nullptr);
    const u16 length = file.read_16();
    if (length == 1) {
        const u8 character = file.read_8();
        // A lone n stands for no name; a lone NUL ends the text before it begins.
        if (character != 'n') setName(oneByteName(character));
        id_ = character == 'n' ? u8{0} : character;
    } else if (length > 0 && length < 0xFFFF) {
        file.expect(length);
        std::string name(length, 0);
        file.readAll(name.data(), length);
        setName(name.c_str());
        // A NUL inside ends the name early: what is left of it counts.
        if (name_[0] && !name_[1]) id_ = static_cast<u8>(name_[0]);
        if (isNamed("n")) {
            setName(nullptr);
            id_ = 0;
        }
    } else if (length == 0) {
        setName("");
    } else {
        i4_error()("read string error");
    }
    readValue(file);
    return true;
}

std::unique_ptr<MetaTag> MetaTag::clone() const {
    auto copy = makeTag(type_, name_, getValue());
    copy->id_ = id_;
    return copy;
}

bool MetaTag::isNamed(const char* name) const { return name_ && name && std::strcmp(name_, name) == 0; }

const char* MetaTag::displayName() const { return row() ? row()->displayName : name_; }

u32 MetaTag::nameLength() const { return name_ ? static_cast<u32>(std::strlen(name_)) : 1; }

void MetaTag::setName(const char* name) {
    if (ownsName_) delete[] name_;
    ownsName_ = false;
    id_ = 0;
    if (!name) {
        name_ = nullptr;
    } else if (!name[0] || !name[1]) {
        name_ = oneByteName(static_cast<u8>(name[0]));
    } else {
        const std::size_t size = std::strlen(name) + 1;
        auto* copy = new char[size];
        std::memcpy(copy, name, size);
        name_ = copy;
        ownsName_ = true;
    }
}

char* MetaTagHash::printable(char* dst, i32 n) const { return copyText(dst, n, value_.toText().c_str()); }

char* MetaTagString::printable(char* dst, i32 n) const {
    return value_.isNull() ? nullptr : copyText(dst, n, value_.c_str());
}

bool MetaTagString::writeValue(i4_file& file) const {
    try {
        value_.write(file);
        return true;
    } catch (const i4_err&) {
        file.tell(i4_log::Tone::verbose, "**I4 error in MetaTagString::toBytes()\n");
        return false;
    }
}

char* MetaTagInt::printable(char* dst, i32 n) const {
    char text[16];
    i4_snprintf(text, sizeof text, "%d", static_cast<i32>(value_));
    return copyText(dst, n, text);
}

char* MetaTagFloat::printable(char* dst, i32 n) const {
    char text[64];  // the longest single has 39 digits before the point
    std::snprintf(text, sizeof text, "%f", static_cast<double>(value_));
    return copyText(dst, n, text);
}

char* MetaTagBool::printable(char* dst, i32 n) const { return copyText(dst, n, value_ ? "true" : "false"); }

void MetaTagBoolArray::setValue(const void* value) {
    if (value) {
        value_.copyFrom(static_cast<const BoolArray*>(value));
    } else {
        value_.setSize(0);
    }
}

bool MetaTagBlob::writeValue(i4_file& file) const {
    const auto size = static_cast<u32>(value_.size());
    if (file.write_32(size) != 4) return false;
    return size == 0 || file.write(value_.data(), size) == static_cast<i32>(size);
}

void MetaTagBlob::readValue(i4_file& file) {
    // A stream that can't tell its length is believed one piece at a time.
    constexpr u32 piece = 64 * 1024;
    value_.clear();
    const u32 size = file.read_32();
    file.expect(size);
    MetaBlob bytes;
    if (file.bytesLeft()) bytes.reserve(size);
    while (bytes.size() < size) {
        const auto done = static_cast<u32>(bytes.size());
        const u32 next = std::min(piece, size - done);
        bytes.resize(done + next);
        file.readAll(bytes.data() + done, next);
    }
    value_ = std::move(bytes);
}
