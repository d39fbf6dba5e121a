// The header list of AVI files.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "i4min/file/file.h"
#include "import/AVIImporter.h"
#include "meta/FileMeta.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> bytes(data, data + size);
    i4_ram_file_class file(bytes.data(), static_cast<u32>(bytes.size()), 0);
    FileMeta meta;
    const bool taken = AVIImporter().import(meta, "film.avi", "film.avi", file);
    if (taken != (meta.getText(TAG_TYPE) != nullptr)) __builtin_trap();
    return 0;
}
