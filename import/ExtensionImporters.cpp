#include "import/ExtensionImporters.h"

#include <span>

namespace {

struct Kind {
    const char* extension;
    const char* format;
};

constexpr Kind pictures[] = {{".bmp", "bmp"}, {".gif", "gif"}, {".png", "png"}, {".jpg", "jpeg"}};
constexpr Kind videos[] = {{".rm", "rm"},     {".mov", "mov"}, {".asf", "asf"}, {".mpg", "mpg"},
                           {".mpeg", "mpeg"}, {".m2v", "m2v"}, {".wmv", "wmv"}, {".vcd", "vcd"}};
constexpr Kind programs[] = {{".exe", "exe"}, {".zip", "zip"}, {".rar", "rar"},
                             {".ace", "ace"}, {".sit", "sit"}, {".iso", "iso"}};

bool importByName(FileMeta& meta, const char* name, const char* type, std::span<const Kind> kinds) {
    for (const Kind& kind : kinds) {
        if (!hasExtension(name, kind.extension)) continue;
        addTypeTags(meta, type, kind.format);
        return true;
    }
    return false;
}

}  // namespace

bool PictureImporter::import(FileMeta& meta, const char* name, const char*, i4_file&) const {
    if (!importByName(meta, name, "Image", pictures)) return false;
    addTextTag(meta, "Artist", "");
    return true;
}

bool RMImporter::import(FileMeta& meta, const char* name, const char*, i4_file&) const {
    return importByName(meta, name, "Video", videos);
}

bool AppImporter::import(FileMeta& meta, const char* name, const char*, i4_file&) const {
    return importByName(meta, name, "Pro", programs);
}
