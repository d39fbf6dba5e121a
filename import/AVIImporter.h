// AVIImporter, which recognises AVI files and tells their codec and playing time.
#pragma once

#include "import/Importer.h"

// Takes a file whose name ends in .avi or .divx and that begins with an AVI header list; reads nothing behind
// that list. Adds "codec" and "length" ("h:mm" with a blank for a leading zero) from the last video stream.
// Without a video stream both are left out, with a rate or scale of 0 the length is.
class AVIImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};
