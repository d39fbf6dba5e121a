// MP3Importer: recognises audio files.
#pragma once

#include "import/Importer.h"

// Accepts an .mp3 file that contains an MPEG audio frame. Adds "length", "bitrate" and, from its ID3v1 tag,
// "Artist", "Album" and "Title" unless empty. Accepts .ogg and .mod files by name only.
// Thread: as Importer. Stateless.
class MP3Importer : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};
