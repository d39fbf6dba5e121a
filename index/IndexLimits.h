// IndexLimits, what an index server puts up with.
#pragma once

#include "i4min/memory/types.h"

// What a server accepts from strangers, and how fast.
struct IndexLimits {
    u32 packetBeforeLogon = 64 << 10;  // bytes of a body
    u32 packet = 16 << 20;
    u32 searchTree = 8 << 10;  // bytes of a tree
    u32 filesPerClient = 20'000;
    u32 resultsAtATime = 200;
    u32 sourcesAtATime = 255;
    u32 datagramResults = 200;    // of one search by datagram
    u32 datagram = 3072;          // bytes
    u32 datagramSearches = 64;    // at a time
    u32 searchBurst = 20;         // searches at once, over TCP from a client, by datagram from an address
    u32 searchPause = 250;        // ms for each further one
    u32 datagramBurst = 500;      // other datagrams at once from an address
    u32 datagramPause = 10;       // ms for each further one
    u32 logonTime = 30'000;       // ms for a connection to log on
    u32 doorTime = 4'000;         // ms for a client's door to be called
    u32 statusPause = 30'000;     // ms between two statuses
    u32 outputPause = 256 << 10;  // bytes waiting for a client at which it isn't read from
    u32 output = 4 << 20;         // bytes waiting at which it is dropped
    u32 outputStall = 60'000;     // ms without a byte taken at which it is dropped
    u64 input = 128u << 20;       // bytes of unfinished packets, of all clients together
};
