// ColImporter: recognises collections by their first bytes, whatever their name.
#pragma once

#include <array>

#include "import/Importer.h"

// The first bytes of a collection: a counted string; see Collection.
inline constexpr std::array<u8, 12> collectionMagic = {10,  0,   'c', 'o', 'l', 'l',
                                                       'e', 'c', 't', 'i', 'o', '2'};

// Replaces `meta` (date, hash, part hashes and all tags) with the record that the collection holds of itself.
// If the file ends before that record does, or the record exceeds 256 KiB, it raises an i4_err and leaves
// `meta` unchanged.
// Thread: as Importer. Stateless.
class ColImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};
