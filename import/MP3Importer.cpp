#include "import/MP3Importer.h"

#include "import/MP3Info.h"
#include "meta/FileMeta.h"

namespace {

constexpr NamedFormat unread[] = {{".ogg", "ogg"}, {".mod", "mod"}};

void addIfAny(FileMeta& meta, const char* name, const char* value) {
    if (*value) addTextTag(meta, name, value);
}

bool importMP3(FileMeta& meta, i4_file& file) {
    MP3Info info;
    if (info.read(file) != MP3Info::found) return false;
    addTypeTags(meta, "Audio", "mp3");
    if (info.hasTag) {
        addIfAny(meta, "Artist", info.tag.artist);
        addIfAny(meta, "Album", info.tag.album);
        addIfAny(meta, "Title", info.tag.title);
    }
    char length[32];
    info.lengthText(length, sizeof length);
    addTextTag(meta, "length", length);
    meta.addTag(MetaTag::makeTag("bitrate", info.bitrate()));
    return true;
}

}  // namespace

bool MP3Importer::import(FileMeta& meta, const char* name, i4_file& file) const {
    if (hasExtension(name, ".mp3")) return importMP3(meta, file);
    return importByName(meta, name, "Audio", unread);
}
