// The nodes of a search: a boolean expression over the tags of a record.
//
// One byte form serves index servers, the controller and datagrams. Integers are little-endian, a string is a
// u16 length and its bytes, and the tree stands depth first, left before right:
//
//   SN_Compound       0, u8 op, left, right
//   SN_FindStr        1, string text
//   SN_StrTagCompare  2, string value, string tagName
//   SN_IntTagCompare  3, i32 value, u8 op, string tagName
//   SN_MatchAll       4
//
// A tag's name is the one that it has in a record: for a tag of tagTable the one byte of its row.
#pragma once

#include <memory>
#include <optional>

#include "i4min/memory/types.h"
#include "i4min/string/string.h"
#include "protocol/TagSource.h"

class i4_file;
class Meta;

enum SearchNodeType : u8 {
    SEARCH_COMPOUND = 0,
    SEARCH_FIND_STR = 1,
    SEARCH_STR_TAG = 2,
    SEARCH_INT_TAG = 3,
    SEARCH_MATCH_ALL = 4,
};

// How a compound joins its children.
enum SearchOp : u32 {
    SEARCH_AND = 0,
    SEARCH_OR = 1,
    SEARCH_LEFT_ONLY = 2,  // left and not right
    SEARCH_XOR = 3,
    SEARCH_RIGHT_ONLY = 4,  // right and not left
};

// How an integer tag, on the left, compares with the node's value.
enum CompareOp : u32 {
    COMPARE_EQUAL = 0,
    COMPARE_ABOVE = 1,
    COMPARE_BELOW = 2,
    COMPARE_AT_LEAST = 3,
    COMPARE_AT_MOST = 4,
    COMPARE_NOT_EQUAL = 5,
};

// What is left of the bounds on a tree that comes off a stream.
struct SearchReadBudget {
    u32 depth = 64;
    u32 nodes = 1024;
};

// A node of a tree. Thread: a finished tree is read-only, and any thread may evaluate, write or print it.
class SearchNode {
  public:
    explicit SearchNode(SearchNodeType node_type) : type(node_type) {}
    SearchNode(const SearchNode&) = delete;
    SearchNode& operator=(const SearchNode&) = delete;
    virtual ~SearchNode() = default;

    virtual std::unique_ptr<SearchNode> clone() const = 0;
    virtual bool matches(TagSource& tags) const = 0;
    // Takes the first word that every match must hold out of the tree `self`, if there is one and `out` is
    // still empty. Returns the tree that must hold besides it, null if nothing is left.
    virtual std::unique_ptr<SearchNode> takeKeyword(std::unique_ptr<SearchNode> self, i4_string& out);
    // The byte form, `type` included. False where the stream refuses it.
    virtual bool toBytes(i4_file& stream) const = 0;
    // Reads what follows the `type` byte. False on a short stream, an unknown node, or a spent budget.
    virtual bool fromBytes(i4_file& stream, SearchReadBudget& budget) = 0;
    virtual u32 byteSize() const = 0;
    virtual u32 cost() const = 0;  // a weight of the evaluation
    // Appends the printed form to the terminated text in `out`, `size` bytes in all; what is too long is cut.
    virtual void printable(char* out, std::size_t size) const = 0;

    bool matches(const Meta& record) const;

    // Reads a whole tree; null if none can be read. One of more than 64 levels or 1,024 nodes is refused.
    static std::unique_ptr<SearchNode> read(i4_file& stream);
    static std::unique_ptr<SearchNode> read(i4_file& stream, SearchReadBudget& budget);

    const SearchNodeType type;
};

// Joins two trees, which it owns.
class SN_Compound : public SearchNode {
  public:
    SN_Compound() : SearchNode(SEARCH_COMPOUND) {}
    SN_Compound(u32 operation, std::unique_ptr<SearchNode> left_tree, std::unique_ptr<SearchNode> right_tree);
    ~SN_Compound() override;

    std::unique_ptr<SearchNode> clone() const override;
    using SearchNode::matches;
    bool matches(TagSource& tags) const override;
    std::unique_ptr<SearchNode> takeKeyword(std::unique_ptr<SearchNode> self, i4_string& out) override;
    bool toBytes(i4_file& stream) const override;
    bool fromBytes(i4_file& stream, SearchReadBudget& budget) override;
    u32 byteSize() const override;
    u32 cost() const override;
    void printable(char* out, std::size_t size) const override;

    std::unique_ptr<SearchNode> left;
    std::unique_ptr<SearchNode> right;
    u32 op = SEARCH_AND;

  private:
    enum class Outcome { no, yes, asRight, notRight };
    Outcome outcome(bool left_matches) const;
    bool leftMatches(TagSource& tags) const;
};

// True for a record of which some string tag holds `text`, whatever its case. An empty text is held by every
// tag that isn't empty.
class SN_FindStr : public SearchNode {
  public:
    SN_FindStr() : SearchNode(SEARCH_FIND_STR) {}
    explicit SN_FindStr(const char* find);  // lowered

    std::unique_ptr<SearchNode> clone() const override;
    using SearchNode::matches;
    bool matches(TagSource& tags) const override;
    std::unique_ptr<SearchNode> takeKeyword(std::unique_ptr<SearchNode> self, i4_string& out) override;
    bool toBytes(i4_file& stream) const override;
    bool fromBytes(i4_file& stream, SearchReadBudget& budget) override;
    u32 byteSize() const override;
    void setValue(const char* find) {  // lowered; null is a text that nothing holds
        text = find;
        text.toLower();
    }
    u32 cost() const override { return 10; }
    void printable(char* out, std::size_t size) const override;

    i4_string text;  // in lower case
};

// True for a record of which a string tag of that name holds `value`: the tag's case doesn't matter, while a
// value with a capital letter in it matches nothing.
class SN_StrTagCompare : public SearchNode {
  public:
    SN_StrTagCompare() : SearchNode(SEARCH_STR_TAG) {}
    SN_StrTagCompare(const char* tag_name, const char* compared);  // both unchanged

    std::unique_ptr<SearchNode> clone() const override;
    using SearchNode::matches;
    bool matches(TagSource& tags) const override;
    bool toBytes(i4_file& stream) const override;
    bool fromBytes(i4_file& stream, SearchReadBudget& budget) override;  // lowers the value
    u32 byteSize() const override;
    void setValue(const char* compared) { value = compared; }  // null matches nothing
    u32 cost() const override { return 3; }
    void printable(char* out, std::size_t size) const override;

    i4_string value;
    i4_string tagName;
};

// True for a record of which an integer tag of that name compares so with `value`, both taken as signed.
class SN_IntTagCompare : public SearchNode {
  public:
    SN_IntTagCompare() : SearchNode(SEARCH_INT_TAG) {}
    SN_IntTagCompare(const char* tag_name, i32 compared, u32 operation);

    std::unique_ptr<SearchNode> clone() const override;
    using SearchNode::matches;
    bool matches(TagSource& tags) const override;
    bool toBytes(i4_file& stream) const override;
    bool fromBytes(i4_file& stream, SearchReadBudget& budget) override;
    u32 byteSize() const override;
    void setValue(std::optional<i32> compared) { value = compared; }  // none matches nothing
    u32 cost() const override { return 1; }
    void printable(char* out, std::size_t size) const override;

    std::optional<i32> value = 0;
    i4_string tagName;
    u32 op = COMPARE_EQUAL;
};

// True for every record.
class SN_MatchAll : public SearchNode {
  public:
    SN_MatchAll() : SearchNode(SEARCH_MATCH_ALL) {}

    std::unique_ptr<SearchNode> clone() const override;
    using SearchNode::matches;
    bool matches(TagSource&) const override { return true; }
    bool toBytes(i4_file& stream) const override;
    bool fromBytes(i4_file&, SearchReadBudget&) override { return true; }
    u32 byteSize() const override { return 1; }
    u32 cost() const override { return 0; }
    void printable(char* out, std::size_t size) const override;
};
