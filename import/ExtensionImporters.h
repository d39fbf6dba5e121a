// The importers that recognise a file by its name only and don't read it. Thread: as Importer. Stateless.
#pragma once

#include "import/Importer.h"

// Images. Also adds an empty "Artist".
class PictureImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};

// Videos other than those of AVIImporter.
class RMImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};

// Programs, archives and disk images.
class AppImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};
