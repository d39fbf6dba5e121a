// FileIndex, all published files: by hash, and by what their texts hold.
#pragma once

#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

#include "index/FileRecord.h"
#include "index/FileSegment.h"
#include "protocol/SearchNode.h"

using ClientNumber = u32;

// A search in progress: its tree, and where in the index it stands. It stays valid while files come and go; a
// file that is moved within the index meanwhile may be met twice, none is passed over.
class SearchRun {
  public:
    // Null if the tree can't be read.
    static std::unique_ptr<SearchRun> read(ByteSpan tree);
    // For a tree of so many nodes.
    SearchRun(std::unique_ptr<SearchNode> tree, u32 nodes) : tree_(std::move(tree)), nodes_(nodes) {}

    bool atEnd() const { return end_; }

  private:
    friend class FileIndex;

    std::unique_ptr<SearchNode> tree_;
    u32 nodes_;
    u64 segment_ = 0;       // its number
    bool planned_ = false;  // candidates_ holds what that segment has to look at
    Candidates candidates_;
    u32 next_ = 0;  // position in the candidates, or slot where all are
    bool end_ = false;
};

// Thread: one. Owns: the records. Clients are numbers; who publishes keeps the file numbers that come back,
// to withdraw them.
//
// Files stand in segments, in the order in which they came. A segment that has filled up gets an index of the
// three-character pieces of its texts; one that has lost more than half its files is dissolved, and what is
// left of it moves to the segment that is filled at present.
class FileIndex {
  public:
    struct Limits {
        u32 files = 1'000'000;
        u64 recordBytes = 256u << 20;
    };
    FileIndex() : FileIndex(Limits(), 0) {}
    // `seed` is one that strangers can't guess.
    FileIndex(Limits limits, u64 seed) : limits_(limits), byHash_(0, SeededHash(seed)) { openSegment(); }

    // Gives the file one more source. The first client's record is what others see; a client that is the only
    // source replaces it by publishing again. Empty where the index is full, or the client has published the
    // file already.
    std::optional<FileNumber> publish(ClientNumber client, const MD4Hash& hash, FileRecord record);
    // The client is no source any more; without sources the file is gone. Wants a file that it published.
    void withdraw(ClientNumber client, FileNumber file);

    // Null for a hash that nobody published. Valid until the index changes.
    const std::vector<ClientNumber>* sources(const MD4Hash& hash) const;
    u32 fileCount() const { return static_cast<u32>(byHash_.size()); }
    bool isFull() const { return fileCount() >= limits_.files || recordBytes_ >= limits_.recordBytes; }
    std::size_t wordIndexBytes() const;
    void checkInvariants() const;  // aborts; a debug build runs it, or of a big index a part, at each change

    // Goes on with a search until the index ends (run.atEnd()), `take` says false, or the work is spent.
    // `take` gets the record, the hash and the availability of each match; one that it refuses is met again.
    // The work of one record is about the bytes to look at; a million are some milliseconds.
    template <class Take>
    void search(SearchRun& run, u64& work, Take take) const;

  private:
    struct File {
        MD4Hash hash;
        FileRecord record;
        std::vector<ClientNumber> sources;  // empty for a number that is free
        FileSegment* segment = nullptr;
        u32 slot = 0;
    };

    // Strangers choose the hashes: without the seed they can't choose them so that they collide here.
    class SeededHash {
      public:
        explicit SeededHash(u64 seed) : seed_(seed) {}
        std::size_t operator()(const MD4Hash& hash) const;

      private:
        u64 seed_;
    };

    // Of a big index, that file's place and the counts.
    void checkAround(FileNumber changed) const;
    void openSegment();
    void place(FileNumber number);
    void displace(FileNumber number);
    void dissolve(FileSegment& segment);
    void seal(FileSegment& segment);
    // The first segment of that number or above; null behind the last.
    const FileSegment* segmentFrom(u64 number) const;
    // The next record that may match; null where the run ends or the work is spent.
    const File* nextCandidate(SearchRun& run, u64& work) const;

    const Limits limits_;
    std::vector<File> files_;
    std::vector<FileNumber> freeNumbers_;
    std::unordered_map<MD4Hash, FileNumber, SeededHash> byHash_;
    std::vector<std::unique_ptr<FileSegment>> segments_;  // by number; the last one is open
    u64 segmentsMade_ = 0;
    u64 recordBytes_ = 0;
    TextKeys keys_;
};

template <class Take>
void FileIndex::search(SearchRun& run, u64& work, Take take) const {
    while (const File* file = nextCandidate(run, work)) {
        const u32 availability = static_cast<u32>(file->sources.size());
        FileRecordTags tags(file->record, availability);
        if (run.tree_->matches(tags) && !take(file->record, file->hash, availability)) return;
        ++run.next_;
    }
}
