// MetaTags, the tags of a record in memory as a search sees them.
#pragma once

#include "meta/Meta.h"
#include "protocol/TagSource.h"

// Borrows: the record, which must not change meanwhile.
class MetaTags : public TagSource {
  public:
    explicit MetaTags(const Meta& record) : record_(record) {}
    void rewind() override { next_ = 0; }
    bool next(TagView& tag) override;

  private:
    const Meta& record_;
    std::size_t next_ = 0;
};
