// MP3Importer, which recognises audio files.
#pragma once

#include "import/Importer.h"

// An .mp3 file is taken if it holds an MPEG audio frame, and gets "length", "bitrate" and, from its ID3v1
// tag, "Artist", "Album" and "Title" where they aren't empty. An .ogg or .mod file
// is taken by its name alone.
class MP3Importer : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};
