#include "protocol/MetaTags.h"

#include "meta/MetaTag.h"

bool MetaTags::next(TagView& tag) {
    const MetaTag* found = record_.getTags().next(cursor_);
    if (!found) return false;
    tag = TagView();
    if (found->name()) tag.name = found->name();
    tag.type = found->type();
    if (tag.type == META_TAG_STRING) {
        if (const auto* text = static_cast<const char*>(found->getValue())) tag.text = text;
    } else if (tag.type == META_TAG_INT) {
        tag.number = static_cast<i32>(*static_cast<const u32*>(found->getValue()));
    }
    return true;
}
