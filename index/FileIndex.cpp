#include "index/FileIndex.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "i4min/file/file.h"
#include "i4min/memory/debug_build.h"
#include "meta/tagTable.h"

namespace {

constexpr u64 planWork = 2000;  // of one node in one segment

u64 mixed(u64 value) {
    value = (value ^ value >> 33) * 0xff51afd7ed558ccdu;
    value = (value ^ value >> 33) * 0xc4ceb9fe1a85ec53u;
    return value ^ value >> 33;
}

void require(bool holds) {
    if (!holds) std::abort();
}

u64 spend(u64 work, u64 amount) { return work > amount ? work - amount : 0; }

}  // namespace

std::unique_ptr<SearchRun> SearchRun::read(ByteSpan tree) {
    Bytes copy(tree.begin(), tree.end());
    i4_ram_file_class stream(copy.data(), static_cast<u32>(copy.size()), 0);
    stream.setUsed(static_cast<u32>(copy.size()));
    const SearchReadBudget whole;
    SearchReadBudget budget = whole;
    std::unique_ptr<SearchNode> root = SearchNode::read(stream, budget);
    return root ? std::make_unique<SearchRun>(std::move(root), whole.nodes - budget.nodes) : nullptr;
}

std::size_t FileIndex::SeededHash::operator()(const MD4Hash& hash) const {
    u64 halves[2];
    std::memcpy(halves, hash.bytes.data(), sizeof halves);
    return mixed(mixed(halves[0] ^ seed_) ^ halves[1]);
}

void FileIndex::openSegment() { segments_.push_back(std::make_unique<FileSegment>(segmentsMade_++)); }

std::optional<FileNumber> FileIndex::publish(ClientNumber client, const MD4Hash& hash, FileRecord record) {
    if (const auto known = byHash_.find(hash); known != byHash_.end()) {
        File& file = files_[known->second];
        if (std::find(file.sources.begin(), file.sources.end(), client) == file.sources.end()) {
            file.sources.push_back(client);
            checkAround(known->second);
            return known->second;
        }
        const ByteSpan before = file.record.tags();
        const ByteSpan after = record.tags();
        if (file.sources.size() == 1 &&
            !std::equal(before.begin(), before.end(), after.begin(), after.end())) {
            displace(known->second);
            recordBytes_ += after.size();
            recordBytes_ -= before.size();
            file.record = std::move(record);
            place(known->second);
            checkAround(known->second);
        }
        return std::nullopt;
    }
    if (isFull()) return std::nullopt;
    FileNumber number = static_cast<FileNumber>(files_.size());
    if (freeNumbers_.empty()) {
        files_.emplace_back();
    } else {
        number = freeNumbers_.back();
        freeNumbers_.pop_back();
    }
    recordBytes_ += record.size();
    File& file = files_[number];
    file.hash = hash;
    file.record = std::move(record);
    file.sources.assign(1, client);
    byHash_.emplace(hash, number);
    place(number);
    checkAround(number);
    return number;
}

void FileIndex::withdraw(ClientNumber client, FileNumber number) {
    File& file = files_[number];
    if constexpr (debugBuild) require(!file.sources.empty());
    std::erase(file.sources, client);
    if (!file.sources.empty()) return checkAround(number);
    displace(number);
    byHash_.erase(file.hash);
    recordBytes_ -= file.record.size();
    file = File();
    freeNumbers_.push_back(number);
    checkAround(number);
}

void FileIndex::place(FileNumber number) {
    FileSegment* open = segments_.back().get();
    if (open->isFull()) {
        const bool thin = open->live() < FileSegment::capacity / 2;
        if (!thin) seal(*open);
        openSegment();
        if (thin) dissolve(*open);
        open = segments_.back().get();
    }
    files_[number].slot = open->add(number);
    files_[number].segment = open;
}

void FileIndex::displace(FileNumber number) {
    FileSegment& segment = *files_[number].segment;
    segment.remove(files_[number].slot);
    files_[number].segment = nullptr;
    if (segment.isSealed() && segment.live() < FileSegment::capacity / 2) dissolve(segment);
}

void FileIndex::dissolve(FileSegment& segment) {
    const auto at = std::find_if(segments_.begin(), segments_.end(),
                                 [&](const auto& one) { return one.get() == &segment; });
    const std::unique_ptr<FileSegment> old = std::move(*at);
    segments_.erase(at);
    for (u32 slot = 0; slot < old->slots(); ++slot) {
        if (old->file(slot) != noFile) place(old->file(slot));
    }
}

void FileIndex::seal(FileSegment& segment) {
    TagNumbers numbers;
    for (u32 slot = 0; slot < segment.slots(); ++slot) {
        if (segment.file(slot) == noFile) continue;
        FileRecordTags tags(files_[segment.file(slot)].record, 0);
        for (TagView tag; tags.next(tag);) {
            if (tag.type == META_TAG_STRING) keys_.add(tag.text, slot);
            if (tag.type == META_TAG_INT && tag.name != availabilityName) {
                numbers.add(tag.name, tag.number, slot);
            }
        }
    }
    segment.seal(keys_, std::move(numbers));
}

const std::vector<ClientNumber>* FileIndex::sources(const MD4Hash& hash) const {
    const auto found = byHash_.find(hash);
    return found == byHash_.end() ? nullptr : &files_[found->second].sources;
}

std::size_t FileIndex::wordIndexBytes() const {
    std::size_t bytes = 0;
    for (const auto& segment : segments_) bytes += segment->indexBytes();
    return bytes;
}

const FileSegment* FileIndex::segmentFrom(u64 number) const {
    const auto found = std::lower_bound(segments_.begin(), segments_.end(), number,
                                        [](const auto& one, u64 wanted) { return one->number() < wanted; });
    return found == segments_.end() ? nullptr : found->get();
}

const FileIndex::File* FileIndex::nextCandidate(SearchRun& run, u64& work) const {
    while (work > 0) {
        const FileSegment* segment = segmentFrom(run.segment_);
        if (!segment) {
            run.end_ = true;
            return nullptr;
        }
        if (segment->number() != run.segment_ || !run.planned_) {
            run.segment_ = segment->number();
            run.candidates_ = segment->candidates(*run.tree_);
            run.planned_ = true;
            run.next_ = 0;
            work = spend(work, segment->isSealed() ? run.nodes_ * planWork : 0);
        }
        const u32 count =
            run.candidates_.all ? segment->slots() : static_cast<u32>(run.candidates_.slots.size());
        for (; run.next_ < count; ++run.next_) {
            const FileNumber number =
                segment->file(run.candidates_.all ? run.next_ : run.candidates_.slots[run.next_]);
            if (number == noFile) continue;
            const File& file = files_[number];
            work = spend(work, run.nodes_ * (u64{file.record.size()} + 64));
            return &file;
        }
        ++run.segment_;
        run.planned_ = false;
    }
    return nullptr;
}

void FileIndex::checkAround(FileNumber changed) const {
    if constexpr (debugBuild) {
        constexpr std::size_t small = 64;
        if (files_.size() <= small) return checkInvariants();
        const File& file = files_[changed];
        if (file.sources.empty()) {
            require(!file.segment && freeNumbers_.back() == changed);
        } else {
            require(byHash_.at(file.hash) == changed);
            require(segmentFrom(file.segment->number()) == file.segment);
            require(file.segment->file(file.slot) == changed);
        }
        require(!segments_.back()->isSealed() && byHash_.size() + freeNumbers_.size() == files_.size());
    }
}

void FileIndex::checkInvariants() const {
    u64 live = 0;
    u64 bytes = 0;
    for (std::size_t i = 0; i < segments_.size(); ++i) {
        const FileSegment& segment = *segments_[i];
        require(i == 0 || segments_[i - 1]->number() < segment.number());
        require(segment.isSealed() == (i + 1 < segments_.size()));
        for (u32 slot = 0; slot < segment.slots(); ++slot) {
            if (segment.file(slot) == noFile) continue;
            const File& file = files_[segment.file(slot)];
            require(file.segment == &segment && file.slot == slot && !file.sources.empty());
            require(byHash_.at(file.hash) == segment.file(slot));
            bytes += file.record.size();
            ++live;
        }
    }
    require(live == byHash_.size() && live + freeNumbers_.size() == files_.size() && bytes == recordBytes_);
}
