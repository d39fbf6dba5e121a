#include "import/Importer.h"

#include <algorithm>
#include <new>

#include "i4min/file/file.h"
#include "meta/FileMeta.h"

bool hasExtension(const char* name, const char* extension) {
    const std::size_t length = i4_strlen(name);
    const std::size_t ending = i4_strlen(extension);
    return length > ending && i4_stricmp(name + (length - ending), extension) == 0;
}

bool importByName(FileMeta& meta, const char* name, const char* type, std::span<const NamedFormat> formats) {
    for (const auto& [extension, format] : formats) {
        if (!hasExtension(name, extension)) continue;
        addTypeTags(meta, type, format);
        return true;
    }
    return false;
}

void addTypeTags(FileMeta& meta, const char* type, const char* format) {
    meta.addTag(MetaTag::makeTag(TAG_TYPE, type));
    meta.addTag(MetaTag::makeTag(TAG_FORMAT, format));
}

void addTextTag(FileMeta& meta, const char* name, const char* value) {
    meta.addTag(MetaTag::makeTag(name, value));
}

std::vector<u8> readBlock(i4_file& file, u32 limit) {
    std::vector<u8> bytes;
    try {
        bytes.resize(std::min(limit, file.bytesLeft().value_or(limit)));
    } catch (const std::bad_alloc&) {
        return {};
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
        const i32 got = file.read(std::span(bytes).subspan(done));
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    bytes.resize(done);
    return bytes;
}
