#include "import/ExtensionImporters.h"

namespace {

constexpr NamedFormat pictures[] = {{".bmp", "bmp"}, {".gif", "gif"}, {".png", "png"}, {".jpg", "jpeg"}};
constexpr NamedFormat videos[] = {{".rm", "rm"},     {".mov", "mov"}, {".asf", "asf"}, {".mpg", "mpg"},
                                  {".mpeg", "mpeg"}, {".m2v", "m2v"}, {".wmv", "wmv"}, {".vcd", "vcd"}};
constexpr NamedFormat programs[] = {{".exe", "exe"}, {".zip", "zip"}, {".rar", "rar"},
                                    {".ace", "ace"}, {".sit", "sit"}, {".iso", "iso"}};

}  // namespace

bool PictureImporter::import(FileMeta& meta, const char* name, i4_file&) const {
    if (!importByName(meta, name, "Image", pictures)) return false;
    addTextTag(meta, "Artist", "");
    return true;
}

bool RMImporter::import(FileMeta& meta, const char* name, i4_file&) const {
    return importByName(meta, name, "Video", videos);
}

bool AppImporter::import(FileMeta& meta, const char* name, i4_file&) const {
    return importByName(meta, name, "Pro", programs);
}
