// The tags that everyone knows: rows by which they are addressed, and their one-byte names on a stream.
#pragma once

#include <array>

#include "i4min/memory/types.h"

// The type byte of a tag on a stream.
enum MetaTagType : u8 {
    META_TAG_HASH = 1,
    META_TAG_STRING = 2,
    META_TAG_INT = 3,
    META_TAG_FLOAT = 4,
    META_TAG_BOOL = 5,
    META_TAG_BOOLARRAY = 6,
    META_TAG_BLOB = 7,
};

// A row of tagTable. Its number is the tag's name on a stream.
enum TagIndex : u8 {
    TAG_NAME = 1,
    TAG_SIZE,
    TAG_TYPE,
    TAG_FORMAT,
    TAG_COLLECTION_TYPE,
    TAG_PART_PATH,
    TAG_PART_HASH,
    TAG_PART_TRANS,
    TAG_GAP_START,
    TAG_GAP_END,
    TAG_DESCRIPTION,
    TAG_PING,
    TAG_HISTORY,
    TAG_PREF,
    TAG_PORT,
    TAG_IP,
    TAG_VERSION,
    TAG_TEMPFILENAME,
    TAG_PRIORITY,
    TAG_STATE,
    TAG_AVAILABILITY,
    TAG_QTIME,
    TAG_PARTS,
};

struct MetaTagRow {
    u8 type;
    u8 flagA;
    u8 flagB;
    const char* displayName;  // in English; null in row 0
    char wireName[2];
};

inline constexpr u32 tagRows = 24;  // row 0 is no tag

extern const std::array<MetaTagRow, tagRows> tagTable;

// How a tag of a record is addressed: by its name, or by its row, which stands for the row's one-byte name.
struct TagKey {
    TagKey(const char* tagName) : name(tagName) {}
    TagKey(TagIndex tagIndex) : name(tagTable[tagIndex].wireName), index(tagIndex) {}
    const char* name;
    TagIndex index{};  // 0 for a name
};

// The terminated text of one character, in memory that lasts: what one-byte names of tags point at.
const char* oneByteName(u8 character);
