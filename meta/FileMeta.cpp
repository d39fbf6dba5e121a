#include "meta/FileMeta.h"

#include "i4min/memory/error.h"

std::unique_ptr<FileMeta> FileMeta::withTagsOf(const Meta& other) {
    auto file = std::make_unique<FileMeta>();
    file->Meta::copyFrom(&other);
    return file;
}

bool FileMeta::toNetwork(i4_file& file) const {
    return hash.write(file) && file.write_32(0) == 4 && file.write_16(0) == 2 && Meta::toNetwork(file);
}

bool FileMeta::fromNetwork(i4_file& file) {
    return i4_attempt([&] {
        hash = MD4Hash::read(file);
        file.read_32();
        file.read_16();
        return Meta::fromNetwork(file);
    });
}

bool FileMeta::toDisk(i4_file& file) {
    return file.write_32(date) == 4 && hash.write(file) && writePartHashes(file) && Meta::toDisk(file);
}

bool FileMeta::fromDisk(i4_file& file) {
    return i4_attempt([&] {
        date = file.read_32();
        hash = MD4Hash::read(file);
        readPartHashes(file);
        return Meta::fromDisk(file);
    });
}

void FileMeta::copyFrom(const Meta* other) {
    if (other == this) return;
    Meta::copyFrom(other);
    if (const auto* file = dynamic_cast<const FileMeta*>(other)) {
        path = file->path;
        hash = file->hash;
        partHashes.insert(partHashes.end(), file->partHashes.begin(), file->partHashes.end());
    }
}

bool FileMeta::matches(u32 size, u32 fileDate, const char* name) const {
    const MetaTag* tag = findTag(TAG_NAME);
    return date == fileDate && getSize() == size && tag && name && i4_strcmp(getName(), name) == 0;
}

bool FileMeta::writePartHashes(i4_file& file) const {
    if (partHashes.size() > 0xFFFF) return false;
    if (file.write_16(static_cast<u16>(partHashes.size())) != 2) return false;
    for (const MD4Hash& part : partHashes) {
        if (!part.write(file)) return false;
    }
    return true;
}

void FileMeta::readPartHashes(i4_file& file) {
    partHashes.clear();
    const u16 count = file.read_16();
    file.expect(u64{count} * MD4Hash::streamSize);
    std::vector<MD4Hash> parts(count);
    for (MD4Hash& part : parts) part = MD4Hash::read(file);
    partHashes = std::move(parts);
}
