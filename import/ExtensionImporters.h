// The importers that know a file by its name alone and read nothing of it.
#pragma once

#include "import/Importer.h"

// Images; they also get an empty "Artist".
class PictureImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};

// Videos but for those that AVIImporter looks into.
class RMImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};

// Programs, archives and disk images.
class AppImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};
