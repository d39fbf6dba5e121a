#include "index/FileSegment.h"

#include "index/FileRecord.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <iterator>
#include <utility>

namespace {

constexpr std::size_t keysPerText = 32;  // of a long text these many narrow well enough

u32 character(char c) { return static_cast<u8>(i4_tolower(c)); }

u32 keyAt(std::string_view text, std::size_t at) {
    u32 key = 0;
    for (std::size_t i = at; i < at + 3; ++i) key = key << 8 | (i < text.size() ? character(text[i]) : 0);
    return key;
}

std::vector<u16> both(const std::vector<u16>& a, const u16* first, const u16* last) {
    std::vector<u16> result;
    result.reserve(a.size());
    std::set_intersection(a.begin(), a.end(), first, last, std::back_inserter(result));
    return result;
}

Candidates either(Candidates a, const Candidates& b) {
    if (a.all || b.all) return {true, {}};
    std::vector<u16> result;
    result.reserve(a.slots.size() + b.slots.size());
    std::set_union(a.slots.begin(), a.slots.end(), b.slots.begin(), b.slots.end(),
                   std::back_inserter(result));
    a.slots = std::move(result);
    return a;
}

Candidates marked(const std::bitset<FileSegment::capacity>& slots) {
    Candidates result;
    for (u32 slot = 0; slot < FileSegment::capacity; ++slot) {
        if (slots.test(slot)) result.slots.push_back(static_cast<u16>(slot));
    }
    return result;
}

}  // namespace

void TextKeys::add(std::string_view text, u32 slot) {
    for (std::size_t at = 0; at < text.size(); ++at) {
        pairs_.push_back(static_cast<u64>(keyAt(text, at)) << slotBits | slot);
    }
}

std::vector<u64> TextKeys::take() {
    std::sort(pairs_.begin(), pairs_.end());
    pairs_.erase(std::unique(pairs_.begin(), pairs_.end()), pairs_.end());
    return std::exchange(pairs_, {});
}

void TagNumbers::add(std::string_view name, i32 value, u32 slot) {
    auto found = rows_.find(name);
    if (found == rows_.end()) {
        if (rows_.size() == namesLimit) {
            overflowed_ = true;
            return;
        }
        found = rows_.emplace(name, std::vector<Row>()).first;
    }
    found->second.push_back({value, slot});
}

void TagNumbers::sort() {
    for (auto& [name, rows] : rows_) {
        std::sort(rows.begin(), rows.end());
        rows.shrink_to_fit();
    }
}

Candidates TagNumbers::holding(std::string_view name, i32 value, u32 op) const {
    const auto found = rows_.find(name);
    if (found == rows_.end()) return {overflowed_, {}};
    const std::vector<Row>& rows = found->second;
    const auto first = std::lower_bound(rows.begin(), rows.end(), value,
                                        [](const Row& row, i32 wanted) { return row.value < wanted; });
    const auto last = std::upper_bound(rows.begin(), rows.end(), value,
                                       [](i32 wanted, const Row& row) { return wanted < row.value; });
    std::bitset<FileSegment::capacity> slots;
    const auto mark = [&slots](auto from, auto to) {
        for (; from != to; ++from) slots.set(from->slot);
    };
    if (op == COMPARE_EQUAL || op == COMPARE_AT_LEAST || op == COMPARE_AT_MOST) mark(first, last);
    if (op == COMPARE_BELOW || op == COMPARE_AT_MOST || op == COMPARE_NOT_EQUAL) mark(rows.begin(), first);
    if (op == COMPARE_ABOVE || op == COMPARE_AT_LEAST || op == COMPARE_NOT_EQUAL) mark(last, rows.end());
    return marked(slots);
}

std::size_t TagNumbers::bytes() const {
    std::size_t bytes = 0;
    for (const auto& [name, rows] : rows_)
        bytes += rows.capacity() * sizeof(Row) + sizeof(rows) + name.size() + 64;
    return bytes;
}

std::size_t FileSegment::indexBytes() const {
    return numbers_.bytes() + files_.capacity() * sizeof(FileNumber) + keys_.capacity() * sizeof(u32) +
           starts_.capacity() * sizeof(u32) + keySlots_.capacity() * sizeof(u16);
}

u32 FileSegment::add(FileNumber file) {
    files_.push_back(file);
    ++live_;
    return static_cast<u32>(files_.size() - 1);
}

void FileSegment::remove(u32 slot) {
    files_[slot] = noFile;
    --live_;
}

void FileSegment::seal(TextKeys& keys, TagNumbers&& numbers) {
    numbers_ = std::move(numbers);
    numbers_.sort();
    const std::vector<u64> pairs = keys.take();
    keySlots_.reserve(pairs.size());
    for (const u64 pair : pairs) {
        const u32 key = static_cast<u32>(pair >> TextKeys::slotBits);
        if (keys_.empty() || keys_.back() != key) {
            keys_.push_back(key);
            starts_.push_back(static_cast<u32>(keySlots_.size()));
        }
        keySlots_.push_back(static_cast<u16>(pair % capacity));
    }
    starts_.push_back(static_cast<u32>(keySlots_.size()));
    keys_.shrink_to_fit();
    starts_.shrink_to_fit();
    sealed_ = true;
}

std::pair<const u16*, const u16*> FileSegment::slotsOf(u32 key) const {
    const auto found = std::lower_bound(keys_.begin(), keys_.end(), key);
    if (found == keys_.end() || *found != key) return {nullptr, nullptr};
    const auto at = static_cast<std::size_t>(found - keys_.begin());
    return {keySlots_.data() + starts_[at], keySlots_.data() + starts_[at + 1]};
}

// All keys that begin with the text.
Candidates FileSegment::holdingShort(std::string_view text) const {
    const u32 least = keyAt(text, 0);
    const u32 beyond = least + (1u << (8 * (3 - text.size())));
    const auto first = std::lower_bound(keys_.begin(), keys_.end(), least) - keys_.begin();
    const auto last = std::lower_bound(keys_.begin(), keys_.end(), beyond) - keys_.begin();
    std::bitset<capacity> found;
    for (u32 i = starts_[static_cast<std::size_t>(first)]; i < starts_[static_cast<std::size_t>(last)]; ++i) {
        found.set(keySlots_[i]);
    }
    return marked(found);
}

// Slots that have all keys of the text, rarest first. Lists that would narrow no more are passed over.
Candidates FileSegment::holding(const i4_string& wanted) const {
    const std::string_view text = wanted.view();
    if (wanted.isNull()) return {};
    if (text.empty()) return {true, {}};
    if (text.size() < 3) return holdingShort(text);
    std::array<std::pair<const u16*, const u16*>, keysPerText> lists;
    const std::size_t count = std::min(text.size() - 2, keysPerText);
    for (std::size_t i = 0; i < count; ++i) {
        lists[i] = slotsOf(keyAt(text, i));
        if (!lists[i].first) return {};
    }
    std::sort(lists.begin(), lists.begin() + static_cast<std::ptrdiff_t>(count),
              [](const auto& a, const auto& b) { return a.second - a.first < b.second - b.first; });
    Candidates result{false, {lists[0].first, lists[0].second}};
    for (std::size_t i = 1; i < count; ++i) {
        const auto length = static_cast<std::size_t>(lists[i].second - lists[i].first);
        if (result.slots.size() * 32 < length) break;
        result.slots = both(result.slots, lists[i].first, lists[i].second);
    }
    return result;
}

Candidates FileSegment::joined(const SN_Compound& node) const {
    switch (node.op) {
        case SEARCH_AND: {
            Candidates left = candidates(*node.left);
            if (!left.all && left.slots.empty()) return left;
            Candidates right = candidates(*node.right);
            if (left.all) return right;
            if (right.all) return left;
            return {false, both(left.slots, right.slots.data(), right.slots.data() + right.slots.size())};
        }
        case SEARCH_OR:
        case SEARCH_XOR:
            return either(candidates(*node.left), candidates(*node.right));
        case SEARCH_LEFT_ONLY:
            return candidates(*node.left);
        case SEARCH_RIGHT_ONLY:
            return candidates(*node.right);
        default:
            return {};
    }
}

Candidates FileSegment::candidates(const SearchNode& tree) const {
    if (!sealed_) return {true, {}};
    switch (tree.type) {
        case SEARCH_COMPOUND:
            return joined(static_cast<const SN_Compound&>(tree));
        case SEARCH_FIND_STR:
            return holding(static_cast<const SN_FindStr&>(tree).text);
        case SEARCH_STR_TAG:
            return holding(static_cast<const SN_StrTagCompare&>(tree).value);
        case SEARCH_INT_TAG: {
            const auto& node = static_cast<const SN_IntTagCompare&>(tree);
            if (node.tagName.view() == availabilityName) return {true, {}};  // changes as clients come and go
            if (!node.value) return {};
            return numbers_.holding(node.tagName.view(), *node.value, node.op);
        }
        default:
            return {true, {}};
    }
}
