// AVIImporter: recognises AVI files and reads their codec and playing time.
#pragma once

#include "import/Importer.h"

// Accepts names ending in .avi or .divx whose content begins with an AVI header list; reads nothing after
// that list. Adds "codec" and "length" ("h:mm" with a blank for a leading zero) of the last video stream.
// Without a video stream it adds neither; with a rate or scale of 0, no length.
// Thread: as Importer. Stateless.
class AVIImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};
