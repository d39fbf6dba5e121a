// DLProgress, a download's map of its file: how many sources hold each byte, what is being fetched, what is
// here, and which part to fetch next.
#pragma once

#include "download/GapCounterList.h"
#include "i4min/memory/LL.h"

class BoolArray;
class Random;
class PartialFile;

// Thread: under Download's lock, but for setup() after loading, which runs before anything else can reach it.
// Owns: its parts.
class DLProgress : public GapCounterList {
  public:
    // Takes over the file's gaps; the parts that miss something, or may once they are checked, in random
    // order.
    void setup(PartialFile& partial, Random& random);
    // A source has these parts, or a source with these parts is gone. Null does nothing.
    void addParts(const BoolArray* parts);
    void removeParts(const BoolArray* parts);
    // The first free bytes of the rarest part among `parts`, at most so many of them, marked as requested. A
    // flag beyond the array's end reads as not set. False when there is nothing to fetch.
    bool pickChunk(const BoolArray* parts, i64 most, u32& start, u32& end);

  private:
    void changeParts(const BoolArray& parts, i32 delta);
    bool findFree(i64 partStart, i64 partEnd, i64 most, u32& start, u32& end);

    OwnLL<GapCounter> partList_;  // rarest first; a complete part stays, it has no free range any more
};
