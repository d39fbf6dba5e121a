#include "import/ImporterList.h"

#include "i4min/file/Disk.h"
#include "i4min/memory/error.h"
#include "import/AVIImporter.h"
#include "import/ColImporter.h"
#include "import/ExtensionImporters.h"
#include "import/MP3Importer.h"
#include "meta/FileMeta.h"

ImporterList::ImporterList()
    : importers_{std::make_unique<MP3Importer>(),     std::make_unique<AVIImporter>(),
                 std::make_unique<PictureImporter>(), std::make_unique<RMImporter>(),
                 std::make_unique<AppImporter>(),     std::make_unique<ColImporter>()} {}

bool ImporterList::importFile(FileMeta& meta, Disk& disk, i4_log& log, const char* path,
                              const char* name) const {
    const std::unique_ptr<i4_file> file = disk.open(path, I4_FILE_READ);
    if (!file) return false;
    file->setLog(&log);
    try {
        const u32 size = file->size();
        meta.addTag(MetaTag::makeTag(TAG_NAME, name));
        meta.addTag(MetaTag::makeTag(TAG_SIZE, size));
        for (const auto& importer : importers_) {
            file->seek(0);
            if (importer->import(meta, name, *file)) break;
        }
    } catch (const i4_err&) {
        file->tell(i4_log::Tone::verbose, "Exception in import\n");
    }
    meta.setPath(path);
    return true;
}
