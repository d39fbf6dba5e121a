// The header list of AVI files.
#include "fuzz/fuzz.h"
#include "import/AVIImporter.h"
#include "meta/FileMeta.h"

FUZZ_TARGET(avi) {
    BytesFile file({data, size});
    FileMeta meta;
    const bool taken = AVIImporter().import(meta, "film.avi", file);
    require(taken == (meta.getText(TAG_TYPE) != nullptr));
}
