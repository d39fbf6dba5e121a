// DLProgress, a download's map of its file: how many sources hold each byte, what is being fetched, what is
// here, and which chunk to fetch next.
#pragma once

#include <vector>

#include "download/GapCounterList.h"
#include "download/SourceAccounts.h"

class BoolArray;
class Random;
class PartialFile;

// A range of the file that is fetched from one source; empty where `end` is 0.
struct Chunk {
    u32 start = 0;
    u32 end = 0;

    bool isEmpty() const { return end == 0; }
    u32 bytes() const { return end - start; }
    u32 part() const;
};

// Who asks for a chunk.
struct Asker {
    const BoolArray* parts;  // that it has; null while unknown
    u32 account;
    bool isProven;   // it gave bytes that passed
    bool mayRepair;  // it may fetch a part that failed
};

// Which chunk comes next:
//
//   1. of the parts that the source has, one that failed;
//   2. then the rarest;
//   3. among equals, those that were begun;
//   4. then by a lot that each download draws once, so that clients spread over a file.
//
// Two rules keep liars from spoiling many parts. A part that failed goes to one source alone: a second
// failure tells who lied, and once it has passed, the bytes that the others gave tell it. Until then, only
// proven sources get anything else.
//
// Thread: under Download's lock, but for setup() after loading, which runs before anything else can reach it.
class DLProgress : public GapCounterList {
  public:
    // Takes over what the file misses, and draws the lots.
    void setup(const PartialFile& partial, Random& random);
    // A source has these parts, or a source with these parts is gone. Null does nothing.
    void addParts(const BoolArray* parts);
    void removeParts(const BoolArray* parts);
    // The next chunk of at most so many bytes for this source, marked as requested. Empty where there is
    // none. A flag beyond the array's end reads as not set.
    Chunk pickChunk(const Asker& asker, i64 most);
    // The source has the chunk no more: what is not here of it may be requested again.
    void giveBack(const Chunk& chunk);
    // The parts that this source is to give alone.
    std::vector<u32> heldBy(u32 account) const;
    void finished(const Chunk& chunk) { --parts_[chunk.part()].requests; }
    // The chunk, which somebody has finished with, stays requested, by another source.
    void handOver(const Chunk& chunk);

    void partVerified(u32 part) { parts_[part].isVerified = true; }
    // It failed: one source is to give all of it.
    bool isAlone(u32 part) const { return parts_[part].isAlone; }
    // All of it is missing again, and goes to one source alone.
    void partFailed(u32 part);
    // Whether the source has a part of which bytes are missing.
    bool hasMissing(const BoolArray* parts) const;

  private:
    struct Part {
        u32 start = 0;
        u32 end = 0;
        i32 sources = 0;   // that are known to have it
        u32 lot = 0;       // the lower, the sooner
        i32 requests = 0;  // chunks that are being fetched
        bool isBegun = false;
        bool isVerified = false;
        bool isAlone = false;    // it failed
        u32 holder = noAccount;  // who gives it alone
        i32 failures = 0;
    };
    static bool mayFetch(const Part& part, const Asker& asker, bool repairing);
    static bool comesBefore(const Part& a, const Part& b);
    bool isRepairing() const;
    // The first run of the part whose count is below `limit`; empty where there is none.
    Chunk firstIn(const Part& part, i32 limit) const;
    void changeParts(const BoolArray& parts, i32 delta);

    std::vector<Part> parts_;
};
