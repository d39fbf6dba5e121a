// Importer: recognises files of one kind and reads their details.
#pragma once

#include <span>
#include <vector>

#include "i4min/memory/types.h"

class FileMeta;
class i4_file;

// The base of all importers. Has no state except constant tables.
// Thread: the hash thread.
class Importer {
  public:
    virtual ~Importer() = default;
    // Returns true if the file is of this importer's kind, and adds its details to `meta` as tags; otherwise
    // adds nothing. `name` is the bare file name; `file` is open for reading at offset 0. May pass on an
    // i4_err of the stream.
    virtual bool import(FileMeta& meta, const char* name, i4_file& file) const = 0;
};

// True if `name` is longer than `extension` (".mp3") and ends in it, ignoring the case of ASCII letters.
bool hasExtension(const char* name, const char* extension);

// A file name extension and the format that it means.
// A plain value.
struct NamedFormat {
    const char* extension;
    const char* format;
};
// Appends TAG_TYPE and TAG_FORMAT for the format of the extension. Returns false if it isn't one of these.
bool importByName(FileMeta& meta, const char* name, const char* type, std::span<const NamedFormat> formats);

// Appends TAG_TYPE and TAG_FORMAT.
void addTypeTags(FileMeta& meta, const char* type, const char* format);
// Appends a string tag with a name in full.
void addTextTag(FileMeta& meta, const char* name, const char* value);

// Reads from the stream's position up to `limit` bytes, or up to the end or a failed read. Allocates no more
// than the stream can fill.
std::vector<u8> readBlock(i4_file& file, u32 limit);
