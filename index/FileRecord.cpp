#include "index/FileRecord.h"

#include <algorithm>

namespace {

bool holdsZero(std::string_view text) { return text.find('\0') != std::string_view::npos; }
bool isRow(const TagView& tag, TagIndex row) {
    return tag.name.size() == 1 && static_cast<u8>(tag.name[0]) == row;
}

// Passes over the value; false for a type that isn't known.
bool readValue(ByteReader& in, TagView& view) {
    switch (view.type) {
        case META_TAG_HASH:
            in.take(16);
            return true;
        case META_TAG_STRING:
            view.text = in.text();
            return true;
        case META_TAG_INT:
            view.number = static_cast<i32>(in.read32());
            return true;
        case META_TAG_FLOAT:
            in.take(4);
            return true;
        case META_TAG_BOOL:
            in.take(1);
            return true;
        case META_TAG_BOOLARRAY:
            if (const u16 bits = in.read16()) in.take(bits / 8u + 1);
            return true;
        case META_TAG_BLOB:
            in.take(in.read32());
            return true;
        default:
            return false;
    }
}

}  // namespace

bool readEncodedTag(ByteReader& in, EncodedTag& tag) {
    const u8* start = in.here();
    tag.view = TagView();
    tag.view.type = in.read8();
    tag.view.name = in.text();
    if (tag.view.name == "n") tag.view.name = {};
    if (!readValue(in, tag.view) || in.failed()) return false;
    tag.bytes = {start, static_cast<std::size_t>(in.here() - start)};
    return true;
}

bool FileRecord::read(ByteReader& in) {
    Bytes kept;
    u32 count = 0;
    bool name = false;
    const bool whole = readEncodedTags(in, [&](const EncodedTag& tag) {
        const TagView& view = tag.view;
        if (!view.name.data() || holdsZero(view.name) || holdsZero(view.text)) return;
        if (isRow(view, TAG_AVAILABILITY) || kept.size() + tag.bytes.size() > recordBytesLimit) return;
        if (isRow(view, TAG_NAME) && !view.text.empty()) name = true;
        kept.insert(kept.end(), tag.bytes.begin(), tag.bytes.end());
        ++count;
    });
    if (!whole) return false;
    bytes_ = std::make_unique_for_overwrite<u8[]>(kept.size());
    std::copy(kept.begin(), kept.end(), bytes_.get());
    size_ = static_cast<u16>(kept.size());
    count_ = static_cast<u16>(count);
    hasName_ = name;
    return true;
}

void FileRecord::write(Bytes& out, const MD4Hash& hash, u32 availability) const {
    ByteWriter writer(out);
    writer.hash(hash).put32(0).put16(0).put32(count_ + 1u).put(tags());
    writer.put8(META_TAG_INT).text(availabilityName).put32(availability);
}

void FileRecordTags::rewind() {
    in_ = ByteReader(tags_);
    availabilityTold_ = false;
}

bool FileRecordTags::next(TagView& tag) {
    if (in_.left() > 0) {
        EncodedTag encoded;
        if (!readEncodedTag(in_, encoded)) return false;
        tag = encoded.view;
        return true;
    }
    if (availabilityTold_) return false;
    availabilityTold_ = true;
    tag = TagView{availabilityName, META_TAG_INT, {}, static_cast<i32>(availability_)};
    return true;
}
