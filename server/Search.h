// Search: a search query, held as a tree of SearchNode and shared by reference count.
#pragma once

#include <memory>

#include "i4min/string/string.h"
#include "i4min/threads/linux/RefCounter.h"
#include "meta/MetaList.h"
#include "protocol/SearchNode.h"

class i4_file;

// Read-only once it is built. Only an owner that shares it with nobody may call fromBytes().
// Thread: any, once it is built. Owns: its tree.
class Search : public RefCounter, public MetaMatcher {
  public:
    // Makes `node` the root. If there is a root already, a new root joins both by `op`, with `node` on the
    // right.
    void add(std::unique_ptr<SearchNode> node, u32 op);
    void clear();

    // Requires a root: check root() first.
    bool matches(const Meta& record) const override { return root_->matches(record); }
    SearchNode* root() const { return root_.get(); }

    bool toBytes(i4_file& stream) const;  // false without a root
    u32 byteSize() const;                 // 0 without a root
    // Replaces the tree with the one read from the stream. Returns false, and leaves no root, if it can't be
    // read.
    bool fromBytes(i4_file& stream);

    // Returns a word that every match contains, or an empty string. The first call removes that word from the
    // tree.
    const i4_string& keyword();
    // Writes "search( ", the tree and " )" to `out`, truncated to `size` bytes including the terminator.
    void printable(char* out, std::size_t size) const;

    bool alternate = false;  // send as an alternate search, the second of the two search requests

  private:
    i4_string keyword_;
    std::unique_ptr<SearchNode> root_;
};
