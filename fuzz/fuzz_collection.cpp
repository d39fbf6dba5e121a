// Collection files, when loaded and when shared.
#include "download/Collection.h"
#include "fuzz/fuzz.h"
#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "import/ColImporter.h"

FUZZ_TARGET(collection) {
    BytesFile file({data, size});
    Collection collection(quietEngine().engine.core);
    const bool whole = collection.read(file);
    if (whole) {
        i4_owned_ram_file copy;
        require(collection.self.toDisk(copy) && collection.toDisk(copy));
    }
    file.seek(0);
    FileMeta meta;
    try {
        ColImporter().import(meta, "set", file);
    } catch (const i4_err&) {
        require(meta.getTags().empty());
    }
}
