#include "meta/Meta.h"

#include <algorithm>
#include <string>

bool Meta::toNetwork(i4_file& file) const {
    if (file.write_32(static_cast<u32>(tags_.size())) != 4) return false;
    return std::all_of(tags_.begin(), tags_.end(),
                       [&](const auto& tag) { return saveElement(*tag, file, StreamForm::network); });
}

bool Meta::toDisk(i4_file& file) { return Meta::toNetwork(file); }

bool Meta::fromNetwork(i4_file& file) {
    u32 bytes = Meta::byteSize();
    const auto keep = [&](std::unique_ptr<MetaTag> tag) {
        const u32 size = tag->byteSize();
        if (tags_.size() >= mostTags || bytes + size > mostTagBytes) return;
        bytes += size;
        addTag(std::move(tag));
    };
    bool damaged = false;
    if (readTags(file, damaged, keep)) return true;
    if (damaged) file.tell(i4_log::Tone::verbose, "ERROR: Meta::fromNetwork()\n");
    return false;
}

bool Meta::fromDisk(i4_file& file) {
    clearTags();
    bool damaged = false;
    if (readTags(file, damaged, [this](std::unique_ptr<MetaTag> tag) { addTag(std::move(tag)); }))
        return true;
    if (damaged) file.tell(i4_log::Tone::plain, "ERROR: Meta::fromDisk()\n");
    return false;
}

// The count needs no bound of its own: nothing is taken for it in advance, and each turn reads a tag or ends.
template <class Keep>
bool Meta::readTags(i4_file& file, bool& damaged, Keep keep) {
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
        keep(std::move(tag));
    }
    return true;
}

u32 Meta::byteSize() const {
    u32 size = 4;
    for (const auto& tag : tags_) size += tag->byteSize();
    return size;
}

void Meta::copyFrom(const Meta* other) {
    if (!other || other == this) return;
    clearTags();
    for (const auto& tag : other->tags_) addTag(tag->clone());
}

Meta::Tags::const_iterator Meta::find(TagKey key) const {
    return std::find_if(tags_.begin(), tags_.end(), [&](const auto& tag) { return tag->isNamed(key.name); });
}

MetaTag* Meta::findTag(TagKey key) const {
    const auto at = find(key);
    return at == tags_.end() ? nullptr : at->get();
}

void Meta::addTag(std::unique_ptr<MetaTag> tag) {
    if (tag) tags_.push_back(std::move(tag));
}

bool Meta::addTag(TagKey key, MetaTag::Value value) {
    if (findTag(key)) return false;
    addTag(MetaTag::makeTag(key.name, std::move(value)));
    return true;
}

bool Meta::removeTag(TagKey key) {
    const auto at = find(key);
    if (at == tags_.end()) return false;
    tags_.erase(at);
    return true;
}

void Meta::removeTags(std::span<const TagIndex> indexes) {
    std::erase_if(tags_, [&](const auto& tag) {
        return std::any_of(indexes.begin(), indexes.end(),
                           [&](TagIndex index) { return tag->isNamed(tagTable[index].wireName); });
    });
}

void Meta::clearTags() { tags_.clear(); }

bool Meta::setTagValue(TagKey key, MetaTag::Value&& value) {
    MetaTag* tag = findTag(key);
    if (!tag || tag->type() != MetaTag::typeOf(value)) return false;
    tag->setValue(std::move(value));
    return true;
}

void Meta::setTag(TagKey key, MetaTag::Value value) {
    if (setTagValue(key, std::move(value))) return;
    place(key, key.index != 0 ? MetaTag::makeTag(key.index, std::move(value))
                              : MetaTag::makeTag(key.name, std::move(value)));
}

void Meta::place(TagKey key, std::unique_ptr<MetaTag> tag) {
    const auto at = find(key);
    if (at == tags_.end()) {
        addTag(std::move(tag));
    } else if (tag) {
        tags_[static_cast<std::size_t>(at - tags_.begin())] = std::move(tag);
    }
}

const char* Meta::getText(TagKey key) const {
    const MetaTag* tag = findTag(key);
    return tag ? tag->text() : nullptr;
}

u32 Meta::getInt(TagKey key) const {
    const MetaTag* tag = findTag(key);
    return tag ? tag->getInt() : 0;
}

char* Meta::printable(TagKey key, char* dst, i32 n) const {
    if (const MetaTag* tag = findTag(key)) return tag->printable(dst, n);
    if (n > 0) dst[0] = 0;
    return dst;
}

void Meta::print(i4_log& log) const {
    for (const auto& tag : tags_) {
        char buffer[255] = "";
        const char* text = tag->printable(buffer, sizeof buffer);
        const char* name = tag->displayName();
        const std::string line = std::string(orEmpty(name)) + ": " + orEmpty(text) + "\n";
        log.tell(i4_log::Tone::plain, line.c_str());
    }
}
