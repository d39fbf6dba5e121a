// Importer, what recognises files of one kind and tells their details.
#pragma once

#include <span>
#include <vector>

#include "i4min/memory/types.h"

class FileMeta;
class i4_file;

// Stateless but for its tables. Thread: the hash thread.
class Importer {
  public:
    virtual ~Importer() = default;
    // True if the file is of this importer's kind: its details then stand in `meta` as tags. False adds
    // nothing. `name` is the bare file name, `file` is open for reading at offset 0. May let an i4_err of the
    // stream pass.
    virtual bool import(FileMeta& meta, const char* name, i4_file& file) const = 0;
};

// True if `name` is longer than `extension` (".mp3") and ends in it, ignoring the case of ASCII letters.
bool hasExtension(const char* name, const char* extension);

// A format that the end of a file's name tells.
struct NamedFormat {
    const char* extension;
    const char* format;
};
// Appends TAG_TYPE and TAG_FORMAT for the format that the name tells; false where it tells none of these.
bool importByName(FileMeta& meta, const char* name, const char* type, std::span<const NamedFormat> formats);

// Appends TAG_TYPE and TAG_FORMAT.
void addTypeTags(FileMeta& meta, const char* type, const char* format);
// Appends a string tag with a name of its own.
void addTextTag(FileMeta& meta, const char* name, const char* value);

// Reads from where the stream stands: `limit` bytes, or as many as there are up to its end or a failing read.
// Takes no more memory than the stream can fill, and reads nothing if there isn't that much.
std::vector<u8> readBlock(i4_file& file, u32 limit);
