// MetaTags, the tags of a record in memory as a search sees them.
#pragma once

#include "meta/Meta.h"
#include "protocol/TagSource.h"

// Borrows: the record, which must not change meanwhile.
class MetaTags : public TagSource {
  public:
    explicit MetaTags(const Meta& record) : record_(record) {}
    void rewind() override { cursor_ = {}; }
    bool next(TagView& tag) override;

  private:
    const Meta& record_;
    LL<MetaTag>::Cursor cursor_;
};
