#include "server/Search.h"

#include <utility>

#include "i4min/file/file.h"

void Search::add(std::unique_ptr<SearchNode> node, u32 op) {
    if (root_) {
        root_ = std::make_unique<SN_Compound>(op, std::move(root_), std::move(node));
    } else {
        root_ = std::move(node);
    }
}

void Search::clear() {
    root_.reset();
    keyword_ = "";
}

bool Search::toBytes(i4_file& stream) const { return root_ && root_->toBytes(stream); }
u32 Search::byteSize() const { return root_ ? root_->byteSize() : 0; }

bool Search::fromBytes(i4_file& stream) {
    clear();
    root_ = SearchNode::read(stream);
    return root_ != nullptr;
}

const i4_string& Search::keyword() {
    if (keyword_.length() == 0 && root_) {
        SearchNode* root = root_.get();
        root_ = root->takeKeyword(std::move(root_), keyword_);
        if (!root_) root_ = std::make_unique<SN_MatchAll>();
    }
    return keyword_;
}

void Search::printable(char* out, std::size_t size) const {
    if (size == 0) return;
    i4_strncpy(out, "search( ", size);
    if (root_) root_->printable(out, size);
    const std::size_t used = i4_strlen(out);
    i4_strncpy(out + used, " )", size - used);
}
