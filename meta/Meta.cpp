#include "meta/Meta.h"

#include <string>

#include <bit>
#include <cstring>

Meta::~Meta() { deleteAll(tags_); }

bool Meta::toNetwork(i4_file& file) const { return saveList(tags_, file, StreamForm::network); }
bool Meta::toDisk(i4_file& file) { return saveList(tags_, file, StreamForm::disk); }

bool Meta::fromNetwork(i4_file& file) {
    bool damaged = false;
    if (readTags(file, damaged)) return true;
    if (damaged) file.tell(i4_log::Tone::verbose, "ERROR: Meta::fromNetwork()\n");
    return false;
}

bool Meta::fromDisk(i4_file& file) {
    clearTags();
    bool damaged = false;
    if (readTags(file, damaged)) return true;
    if (damaged) file.tell(i4_log::Tone::plain, "ERROR: Meta::fromDisk()\n");
    return false;
}

// The count needs no bound of its own: nothing is taken for it in advance, and each turn reads a tag or ends.
bool Meta::readTags(i4_file& file, bool& damaged) {
    i32 count = 0;
    try {
        count = static_cast<i32>(file.read_32());
    } catch (const i4_err&) {
        return false;
    }
    for (i32 i = 0; i < count; ++i) {
        auto tag = MetaTag::readTag(file);
        if (!tag) {
            damaged = true;
            return false;
        }
        addTag(std::move(tag));
    }
    return true;
}

u32 Meta::byteSize() const {
    u32 size = 4;
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = tags_.next(c);) size += tag->byteSize();
    return size;
}

void Meta::copyFrom(const Meta* other) {
    if (!other || other == this) return;
    clearTags();
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = other->tags_.next(c);) addTag(tag->clone());
}

MetaTag* Meta::findTag(const char* name) const {
    return findIn(tags_, [&](const MetaTag& tag) { return tag.isNamed(name); });
}

void Meta::addTag(std::unique_ptr<MetaTag> tag) { tags_.add(tag.release()); }

bool Meta::addTag(const char* name, int type) {
    if (findTag(name)) return false;
    auto tag = MetaTag::makeTag(type, name, nullptr);
    if (!tag) return false;
    addTag(std::move(tag));
    return true;
}

bool Meta::removeTag(const char* name) {
    MetaTag* tag = findTag(name);
    if (!tag) return false;
    tags_.remove(tag);
    delete tag;
    return true;
}

void Meta::clearTags() { deleteAll(tags_); }

bool Meta::setTagValue(const char* name, const void* value, int type) {
    MetaTag* tag = findTag(name);
    if (!tag || tag->type() != type) return false;
    tag->setValue(value);
    return true;
}

void Meta::setTag(const char* name, const void* value, int type) {
    if (!setTagValue(name, value, type)) place(findTag(name), MetaTag::makeTag(type, name, value));
}

void Meta::setTag(TagIndex index, const void* value) {
    const MetaTagRow& row = tagTable[index];
    if (!setTagValue(row.wireName, value, row.type)) {
        place(findTag(row.wireName), MetaTag::makeTag(index, value));
    }
}

void Meta::setInt(TagIndex index, u32 value) {
    const MetaTagRow& row = tagTable[index];
    if (row.type == META_TAG_INT) {
        setTag(index, &value);
    } else {
        setInt(row.wireName, value);
    }
}

void Meta::setText(TagIndex index, const char* value) {
    const MetaTagRow& row = tagTable[index];
    if (row.type == META_TAG_STRING) {
        setTag(index, value);
    } else {
        setText(row.wireName, value);
    }
}

void Meta::place(MetaTag* old, std::unique_ptr<MetaTag> tag) {
    if (!tag) return;
    if (!old) {
        addTag(std::move(tag));
        return;
    }
    u32 position = 0;
    for (LL<MetaTag>::Cursor c; tags_.next(c) != old;) ++position;
    tags_.replaceAt(position, tag.release());
    delete old;
}

const void* Meta::getValue(const char* name) const {
    const MetaTag* tag = findTag(name);
    return tag ? tag->getValue() : nullptr;
}

const void* Meta::getValue(const char* name, int type) const {
    const MetaTag* tag = findTag(name);
    return tag && tag->type() == type ? tag->getValue() : nullptr;
}

const char* Meta::getText(const char* name) const {
    return static_cast<const char*>(getValue(name, META_TAG_STRING));
}

u32 Meta::getInt(const char* name) const {
    const MetaTag* tag = findTag(name);
    if (!tag || (tag->type() != META_TAG_INT && tag->type() != META_TAG_FLOAT)) return 0;
    u32 value = 0;
    std::memcpy(&value, tag->getValue(), sizeof value);
    return value;
}

f32 Meta::getFloat(const char* name) const { return std::bit_cast<f32>(getInt(name)); }

char* Meta::printable(const char* name, char* dst, i32 n) const {
    if (const MetaTag* tag = findTag(name)) return tag->printable(dst, n);
    if (n > 0) dst[0] = 0;
    return dst;
}

void Meta::print(i4_log& log) const {
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = tags_.next(c);) {
        char buffer[255] = "";
        const char* text = tag->printable(buffer, sizeof buffer);
        const char* name = tag->displayName();
        const std::string line = std::string(orEmpty(name)) + ": " + orEmpty(text) + "\n";
        log.tell(i4_log::Tone::plain, line.c_str());
    }
}
