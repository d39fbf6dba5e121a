#include "protocol/MetaTags.h"

#include "meta/MetaTag.h"

bool MetaTags::next(TagView& tag) {
    if (next_ == record_.getTags().size()) return false;
    const MetaTag& found = *record_.getTags()[next_++];
    tag = TagView();
    if (found.name()) tag.name = found.name();
    tag.type = found.type();
    if (const char* text = found.text()) tag.text = text;
    if (tag.type == META_TAG_INT) tag.number = static_cast<i32>(found.getInt());
    return true;
}
