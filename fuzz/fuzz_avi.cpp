// The header list of AVI files.
#include "fuzz/fuzz.h"
#include "import/AVIImporter.h"
#include "meta/FileMeta.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    BytesFile file({data, size});
    FileMeta meta;
    const bool taken = AVIImporter().import(meta, "film.avi", file);
    require(taken == (meta.getText(TAG_TYPE) != nullptr));
    return 0;
}
