// Collection files, as they are loaded and as they are shared.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "download/Collection.h"
#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "import/ColImporter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> bytes(data, data + size);
    i4_ram_file_class file(bytes.data(), static_cast<u32>(bytes.size()), 0);
    Collection collection;
    const bool whole = collection.read(file);
    if (whole) {
        i4_owned_ram_file copy;
        collection.self.toDisk(copy);
        collection.toDisk(copy);
    }
    file.seek(0);
    FileMeta meta;
    try {
        ColImporter().import(meta, "set", "set", file);
    } catch (const i4_err&) {
        if (meta.getTags().first()) __builtin_trap();
    }
    return 0;
}
