// What a search asks of a record: its tags, one after the other.
#pragma once

#include <string_view>

#include "i4min/memory/types.h"

// One tag. Valid until the source's next call.
struct TagView {
    std::string_view name;  // null data for a tag without a name
    u8 type = 0;
    std::string_view text;  // of a string tag, empty for all others
    i32 number = 0;         // of an integer tag, 0 for all others
};

// Walks the tags of one record, as often as it is asked to. Thread: the one that evaluates.
class TagSource {
  public:
    virtual ~TagSource() = default;
    virtual void rewind() = 0;            // back in front of the first tag
    virtual bool next(TagView& tag) = 0;  // false behind the last
};
