// The importers that recognise a file by its name only and don't read it.
#pragma once

#include "import/Importer.h"

// Recognises images. Also adds an empty "Artist".
// Thread: as Importer. Stateless.
class PictureImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};

// Recognises videos other than those of AVIImporter.
// Thread: as Importer. Stateless.
class RMImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};

// Recognises programs, archives and disk images.
// Thread: as Importer. Stateless.
class AppImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};
