// IndexSession, one client as the index server knows it.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "index/FileIndex.h"
#include "index/RateLimit.h"

struct NetAddress {
    u32 ip = 0;  // the first octet in the lowest byte
    u32 port = 0;
    bool operator==(const NetAddress&) const = default;
};

// Work for a client that is done a slice at a time, so that nobody else waits for it: a list of files to take
// in, or a search.
struct IndexJob {
    enum class Kind { publish, search };
    Kind kind = Kind::search;
    u64 notBefore = 0;  // ms

    Bytes body;  // of a publish: the packet, of which what is behind `at` is still to be read
    std::size_t at = 0;
    u32 left = 0;  // files
    u32 added = 0;
    u32 tooMany = 0;

    Bytes results;  // of a search: the packet so far
    u32 found = 0;
};

// Thread: the server's. Owned by the IndexService.
struct IndexSession {
    enum class Phase {
        arrived,  // hasn't logged on
        testing,  // its door is being called
        online,   // has an ID
        closing,  // to be dropped once this event is dealt with
    };

    // A client may be read from while nothing is under way for it and it takes its answers.
    bool wantsInput(u32 outputPause) const {
        return (phase == Phase::arrived || phase == Phase::online) && !job &&
               output.size() - sent < outputPause;
    }
    bool hasOutput() const { return sent < output.size(); }

    ClientNumber number = 0;
    NetAddress address;  // of the client's end of the connection
    NetAddress own;      // of the server's end
    Phase phase = Phase::arrived;
    u64 arrivedAt = 0;  // ms

    MD4Hash userHash;
    u32 id = 0;
    u16 doorPort = 0;
    std::string name;
    std::vector<FileNumber> files;

    std::unique_ptr<IndexJob> job;
    std::unique_ptr<SearchRun> run;  // the last search, which more results are asked of
    RateLimit searches;

    Bytes output;  // packets; those before `sent` have left
    std::size_t sent = 0;
    u64 takenAt = 0;  // ms, when the client last took a byte, or had nothing to take
    bool toldFull = false;
};
