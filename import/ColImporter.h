// ColImporter: recognises collections by their first bytes, whatever their name.
#pragma once

#include <array>

#include "import/Importer.h"

// The first bytes of a collection: a counted string; see Collection.
inline constexpr std::array<u8, 12> collectionMagic = {10,  0,   'c', 'o', 'l', 'l',
                                                       'e', 'c', 't', 'i', 'o', '2'};

inline constexpr char collectionType[] = "Col";

// The record that a collection holds of itself takes the place of `meta`, its date, hash, part hashes and all
// tags: what is in the file decides. A file that ends before its record does raises an i4_err, and `meta` is
// as it was. A record counts as ending after 256 KiB.
class ColImporter : public Importer {
  public:
    bool import(FileMeta& meta, const char* name, i4_file& file) const override;
};
