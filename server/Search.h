// Search, what is looked for: a tree of SearchNode, shared by reference count.
#pragma once

#include <memory>

#include "i4min/string/string.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/MetaList.h"
#include "protocol/SearchNode.h"

class i4_file;

// Built once and then read-only, save for fromBytes() by an owner who shares it with nobody at that moment.
// Thread: any, once it is built. Owns: its tree.
class Search : public RefCounter, public MetaMatcher {
  public:
    // The node becomes the root, or, joined by `op`, the right side of a new root over the old one.
    void add(std::unique_ptr<SearchNode> node, u32 op);
    void clear();

    // Wants a root: the caller asks for one first.
    bool matches(const Meta& record) const override { return root_->matches(record); }
    SearchNode* root() const { return root_.get(); }

    bool toBytes(i4_file& stream) const;  // false without a root
    u32 byteSize() const;                 // 0 without a root
    // Replaces the tree by the one on the stream; false, and no root, if that can't be read.
    bool fromBytes(i4_file& stream);

    // The first word that every match holds, taken out of the tree at the first call. Empty if there is none.
    const i4_string& keyword();
    // Replaces the text in `out` by "search( ", the tree and " )", cut to `size` bytes, terminator included.
    void printable(char* out, std::size_t size) const;

    bool alternate = false;  // selects the second of the two requests that servers know

  private:
    i4_string keyword_;
    std::unique_ptr<SearchNode> root_;
};
