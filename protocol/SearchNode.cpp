#include "protocol/SearchNode.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "meta/tagTable.h"
#include "protocol/MetaTags.h"

namespace {

constexpr char joinLetters[] = "&|!x";
constexpr std::array<const char*, 6> compareTexts = {"=", ">", "<", ">=", "<=", "!="};

// True if `hay`, lowered, holds `needle`; an empty needle is held by whatever isn't empty. Linear in both:
// trees come from strangers, and so do records.
bool holds(std::string_view hay, const i4_string& needle) {
    if (needle.isNull() || hay.empty()) return false;
    const std::string_view wanted = needle.view();
    if (hay.size() < wanted.size()) return false;
    std::array<char, 256> room{};
    std::string longer;
    char* lowered = room.data();
    if (hay.size() > room.size()) {
        longer.resize(hay.size());
        lowered = longer.data();
    }
    std::transform(hay.begin(), hay.end(), lowered, i4_tolower);
    return memmem(lowered, hay.size(), wanted.data(), wanted.size()) != nullptr;
}

bool named(const TagView& tag, const i4_string& name) {
    return tag.name.data() && !name.isNull() && tag.name == name.view();
}

bool compares(i32 tagValue, i32 value, u32 op) {
    switch (op) {
        case COMPARE_EQUAL:
            return tagValue == value;
        case COMPARE_ABOVE:
            return tagValue > value;
        case COMPARE_BELOW:
            return tagValue < value;
        case COMPARE_AT_LEAST:
            return tagValue >= value;
        case COMPARE_AT_MOST:
            return tagValue <= value;
        case COMPARE_NOT_EQUAL:
            return tagValue != value;
        default:
            return false;
    }
}

void append(char* out, std::size_t size, const char* text) {
    const std::size_t used = i4_strlen(out);
    if (text && used < size) i4_strncpy(out + used, text, size - used);
}

bool writeByte(i4_file& stream, u32 value) { return stream.write_8(static_cast<u8>(value)) == 1; }

u32 length(const i4_string& text) { return static_cast<u32>(text.length()); }

std::unique_ptr<SearchNode> makeNode(u8 type) {
    switch (type) {
        case SEARCH_COMPOUND:
            return std::make_unique<SN_Compound>();
        case SEARCH_FIND_STR:
            return std::make_unique<SN_FindStr>();
        case SEARCH_STR_TAG:
            return std::make_unique<SN_StrTagCompare>();
        case SEARCH_INT_TAG:
            return std::make_unique<SN_IntTagCompare>();
        case SEARCH_MATCH_ALL:
            return std::make_unique<SN_MatchAll>();
        default:
            return nullptr;
    }
}

}  // namespace

std::unique_ptr<SearchNode> SearchNode::takeKeyword(std::unique_ptr<SearchNode> self, i4_string&) {
    return self;
}

bool SearchNode::matches(const Meta& record) const {
    MetaTags tags(record);
    return matches(tags);
}

std::unique_ptr<SearchNode> SearchNode::read(i4_file& stream) {
    SearchReadBudget budget;
    return read(stream, budget);
}

std::unique_ptr<SearchNode> SearchNode::read(i4_file& stream, SearchReadBudget& budget) {
    if (budget.depth == 0 || budget.nodes == 0) return nullptr;
    std::unique_ptr<SearchNode> node;
    if (!i4_attempt([&] {
            node = makeNode(stream.read_8());
            return node != nullptr;
        })) {
        return nullptr;
    }
    --budget.nodes;
    --budget.depth;
    const bool whole = node->fromBytes(stream, budget);
    ++budget.depth;
    return whole ? std::move(node) : nullptr;
}

// --- SN_Compound

SN_Compound::SN_Compound(u32 operation, std::unique_ptr<SearchNode> left_tree,
                         std::unique_ptr<SearchNode> right_tree)
    : SearchNode(SEARCH_COMPOUND), left(std::move(left_tree)), right(std::move(right_tree)), op(operation) {}

// A filter of many lines is one long chain: it is taken apart without recursion.
SN_Compound::~SN_Compound() {
    std::vector<std::unique_ptr<SearchNode>> pending;
    const auto take = [&pending](SN_Compound& node) {
        if (node.left) pending.push_back(std::move(node.left));
        if (node.right) pending.push_back(std::move(node.right));
    };
    take(*this);
    while (!pending.empty()) {
        const std::unique_ptr<SearchNode> node = std::move(pending.back());
        pending.pop_back();
        if (node->type == SEARCH_COMPOUND) take(static_cast<SN_Compound&>(*node));
    }
}

std::unique_ptr<SearchNode> SN_Compound::clone() const {
    return std::make_unique<SN_Compound>(op, left ? left->clone() : nullptr,
                                         right ? right->clone() : nullptr);
}

// What the left side's answer makes of the node: settled, or the right side's answer, perhaps turned round.
SN_Compound::Outcome SN_Compound::outcome(bool left_matches) const {
    switch (op) {
        case SEARCH_AND:
            return left_matches ? Outcome::asRight : Outcome::no;
        case SEARCH_OR:
            return left_matches ? Outcome::yes : Outcome::asRight;
        case SEARCH_LEFT_ONLY:
            return left_matches ? Outcome::notRight : Outcome::no;
        case SEARCH_XOR:
            return left_matches ? Outcome::notRight : Outcome::asRight;
        case SEARCH_RIGHT_ONLY:
            return left_matches ? Outcome::no : Outcome::asRight;
        default:
            return Outcome::no;
    }
}

// Goes down the left in steps of many levels, so that a long chain costs little of the stack.
bool SN_Compound::leftMatches(TagSource& tags) const {
    std::array<const SN_Compound*, 64> way;
    std::size_t levels = 0;
    const SearchNode* node = left.get();
    while (node->type == SEARCH_COMPOUND && levels < way.size()) {
        way[levels] = static_cast<const SN_Compound*>(node);
        node = way[levels++]->left.get();
    }
    bool result = node->matches(tags);
    while (levels > 0) {
        const SN_Compound& above = *way[--levels];
        const Outcome outcome = above.outcome(result);
        result = outcome == Outcome::yes;
        if (outcome == Outcome::asRight) result = above.right->matches(tags);
        if (outcome == Outcome::notRight) result = !above.right->matches(tags);
    }
    return result;
}

// And along the right in a loop.
bool SN_Compound::matches(TagSource& tags) const {
    const SN_Compound* node = this;
    for (bool turned = false;;) {
        const Outcome outcome = node->outcome(node->leftMatches(tags));
        if (outcome == Outcome::yes || outcome == Outcome::no) return (outcome == Outcome::yes) != turned;
        if (outcome == Outcome::notRight) turned = !turned;
        if (node->right->type != SEARCH_COMPOUND) return node->right->matches(tags) != turned;
        node = static_cast<const SN_Compound*>(node->right.get());
    }
}

std::unique_ptr<SearchNode> SN_Compound::takeKeyword(std::unique_ptr<SearchNode> self, i4_string& out) {
    if (op != SEARCH_AND) return self;
    SearchNode* child = left.get();
    left = child->takeKeyword(std::move(left), out);
    if (!left) return std::move(right);
    if (out.length() > 0) return self;
    child = right.get();
    right = child->takeKeyword(std::move(right), out);
    if (!right) return std::move(left);
    return self;
}

bool SN_Compound::toBytes(i4_file& stream) const {
    return i4_attempt([&] {
        return writeByte(stream, type) && writeByte(stream, op) && left && right && left->toBytes(stream) &&
               right->toBytes(stream);
    });
}

bool SN_Compound::fromBytes(i4_file& stream, SearchReadBudget& budget) {
    return i4_attempt([&] {
        op = stream.read_8();
        left = read(stream, budget);
        if (left) right = read(stream, budget);
        return left && right;
    });
}

u32 SN_Compound::byteSize() const { return left->byteSize() + right->byteSize() + 2; }
u32 SN_Compound::cost() const { return left->cost() + right->cost(); }

void SN_Compound::printable(char* out, std::size_t size) const {
    const char letter[] = {' ', op < 4 ? joinLetters[op] : ' ', ' ', 0};
    append(out, size, " ( ");
    left->printable(out, size);
    append(out, size, op < 4 ? letter : "  ");
    right->printable(out, size);
    append(out, size, " ) ");
}

// --- SN_FindStr

SN_FindStr::SN_FindStr(const char* find) : SearchNode(SEARCH_FIND_STR), text(find) { text.toLower(); }

std::unique_ptr<SearchNode> SN_FindStr::clone() const { return std::make_unique<SN_FindStr>(text.c_str()); }

bool SN_FindStr::matches(TagSource& tags) const {
    tags.rewind();
    for (TagView tag; tags.next(tag);) {
        if (tag.type == META_TAG_STRING && holds(tag.text, text)) return true;
    }
    return false;
}

// The first word goes to `out`, the others come back as a chain in which each stands on the left of those
// before it. Blanks at the end give the last word once more.
std::unique_ptr<SearchNode> SN_FindStr::takeKeyword(std::unique_ptr<SearchNode> self, i4_string& out) {
    if (text.isNull()) return self;
    char word[256];
    i32 at = i4_strtok(text.c_str(), " ", 0, word, sizeof word);
    if (at == 0) return self;
    out = word;
    std::unique_ptr<SearchNode> chain;
    while (at > 0 && text[static_cast<std::size_t>(at)]) {
        at = i4_strtok(text.c_str(), " ", at, word, sizeof word);
        auto node = std::make_unique<SN_FindStr>(word);
        if (chain) {
            chain = std::make_unique<SN_Compound>(SEARCH_AND, std::move(node), std::move(chain));
        } else {
            chain = std::move(node);
        }
    }
    return chain;
}

bool SN_FindStr::toBytes(i4_file& stream) const {
    return i4_attempt([&] {
        if (!writeByte(stream, type)) return false;
        text.write(stream);
        return true;
    });
}

bool SN_FindStr::fromBytes(i4_file& stream, SearchReadBudget&) {
    return i4_attempt([&] {
        text = i4_string(stream);
        text.toLower();
        return true;
    });
}

u32 SN_FindStr::byteSize() const { return length(text) + 3; }

void SN_FindStr::printable(char* out, std::size_t size) const { append(out, size, text.c_str()); }

// --- SN_StrTagCompare

SN_StrTagCompare::SN_StrTagCompare(const char* tag_name, const char* compared)
    : SearchNode(SEARCH_STR_TAG), value(compared), tagName(tag_name) {}

std::unique_ptr<SearchNode> SN_StrTagCompare::clone() const {
    return std::make_unique<SN_StrTagCompare>(tagName.c_str(), value.c_str());
}

bool SN_StrTagCompare::matches(TagSource& tags) const {
    tags.rewind();
    for (TagView tag; tags.next(tag);) {
        if (tag.type == META_TAG_STRING && named(tag, tagName) && holds(tag.text, value)) return true;
    }
    return false;
}

bool SN_StrTagCompare::toBytes(i4_file& stream) const {
    return i4_attempt([&] {
        if (!writeByte(stream, type)) return false;
        value.write(stream);
        tagName.write(stream);
        return true;
    });
}

bool SN_StrTagCompare::fromBytes(i4_file& stream, SearchReadBudget&) {
    return i4_attempt([&] {
        value = i4_string(stream);
        value.toLower();
        tagName = i4_string(stream);
        return true;
    });
}

u32 SN_StrTagCompare::byteSize() const { return length(value) + length(tagName) + 5; }

void SN_StrTagCompare::printable(char* out, std::size_t size) const {
    append(out, size, tagName.c_str());
    append(out, size, "=");
    append(out, size, value.c_str());
}

// --- SN_IntTagCompare

SN_IntTagCompare::SN_IntTagCompare(const char* tag_name, i32 compared, u32 operation)
    : SearchNode(SEARCH_INT_TAG), value(compared), tagName(tag_name), op(operation) {}

std::unique_ptr<SearchNode> SN_IntTagCompare::clone() const {
    auto copy = std::make_unique<SN_IntTagCompare>(tagName.c_str(), 0, op);
    copy->value = value;
    return copy;
}

bool SN_IntTagCompare::matches(TagSource& tags) const {
    if (!value) return false;
    tags.rewind();
    for (TagView tag; tags.next(tag);) {
        if (tag.type == META_TAG_INT && named(tag, tagName) && compares(tag.number, *value, op)) return true;
    }
    return false;
}

bool SN_IntTagCompare::toBytes(i4_file& stream) const {
    return i4_attempt([&] {
        if (!writeByte(stream, type) || stream.write_32(static_cast<u32>(value.value_or(0))) != 4 ||
            !writeByte(stream, op)) {
            return false;
        }
        tagName.write(stream);
        return true;
    });
}

bool SN_IntTagCompare::fromBytes(i4_file& stream, SearchReadBudget&) {
    return i4_attempt([&] {
        value = static_cast<i32>(stream.read_32());
        op = stream.read_8();
        tagName = i4_string(stream);
        return true;
    });
}

u32 SN_IntTagCompare::byteSize() const { return length(tagName) + 8; }

void SN_IntTagCompare::printable(char* out, std::size_t size) const {
    char number[16];
    i4_sprintf(number, "%d", value.value_or(0));
    append(out, size, tagName.c_str());
    append(out, size, op < compareTexts.size() ? compareTexts[op] : "ER");
    append(out, size, number);
}

// --- SN_MatchAll

std::unique_ptr<SearchNode> SN_MatchAll::clone() const { return std::make_unique<SN_MatchAll>(); }

bool SN_MatchAll::toBytes(i4_file& stream) const {
    return i4_attempt([&] { return writeByte(stream, type); });
}

void SN_MatchAll::printable(char* out, std::size_t size) const { append(out, size, "*"); }
