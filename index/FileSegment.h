// FileSegment, a run of the index: up to 4,096 files, and once it is full, where each three characters stand.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "index/Bytes.h"
#include "protocol/SearchNode.h"

using FileNumber = u32;
inline constexpr FileNumber noFile = 0xFFFFFFFF;

// Which slots of a segment may hold a match: what isn't named can't.
struct Candidates {
    bool all = false;
    std::vector<u16> slots;  // rising; empty if `all`
};

// Collects the three-character keys of texts, lowered. Every position of a text gives one, the last two
// filled up with zeros: so texts of one or two characters are found by the keys that begin with them.
class TextKeys {
  public:
    void add(std::string_view text, u32 slot);
    // (key, slot) pairs, sorted, each once. Leaves the collection empty.
    std::vector<u64> take();

    static constexpr int slotBits = 12;

  private:
    std::vector<u64> pairs_;
};

// Collects the values of integer tags, by name. Only so many names are kept apart.
class TagNumbers {
  public:
    struct Row {
        i32 value;
        u32 slot;
        auto operator<=>(const Row&) const = default;
    };
    static constexpr std::size_t namesLimit = 32;

    void add(std::string_view name, i32 value, u32 slot);
    void sort();

    // The slots of the files that have such a tag which compares so.
    Candidates holding(std::string_view name, i32 value, u32 op) const;
    std::size_t bytes() const;

  private:
    std::map<std::string, std::vector<Row>, std::less<>> rows_;
    bool overflowed_ = false;  // there are names that aren't kept
};

// While a segment is open files are added, and every slot is a candidate. Sealed, it has an index: a sorted
// array of keys, each with the slots of the files that have it in some string tag; and the sorted numbers of
// its integer tags. A file that goes leaves its slot empty; the index isn't changed by that.
class FileSegment {
  public:
    static constexpr u32 capacity = 1u << TextKeys::slotBits;

    explicit FileSegment(u64 number) : number_(number) { files_.reserve(64); }

    u64 number() const { return number_; }  // segments are numbered as they are made
    u32 live() const { return live_; }
    u32 slots() const { return static_cast<u32>(files_.size()); }
    bool isFull() const { return files_.size() == capacity; }
    bool isSealed() const { return sealed_; }
    FileNumber file(u32 slot) const { return files_[slot]; }  // noFile for an empty one
    std::size_t indexBytes() const;

    u32 add(FileNumber file);  // returns the slot; wants an open segment that isn't full
    void remove(u32 slot);
    void seal(TextKeys& keys, TagNumbers&& numbers);

    // Every slot that may match the tree is among them. The tree decides.
    Candidates candidates(const SearchNode& tree) const;

  private:
    Candidates holding(const i4_string& text) const;
    Candidates holdingShort(std::string_view text) const;
    Candidates joined(const SN_Compound& node) const;
    std::pair<const u16*, const u16*> slotsOf(u32 key) const;

    const u64 number_;
    std::vector<FileNumber> files_;
    u32 live_ = 0;
    bool sealed_ = false;
    std::vector<u32> keys_;
    std::vector<u32> starts_;  // of each key's slots in keySlots_, and the end
    std::vector<u16> keySlots_;
    TagNumbers numbers_;
};
