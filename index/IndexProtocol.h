// The opcodes of an index server, with the lengths that their bodies may have. Lengths are those behind the
// opcode byte; integers are little-endian; an address is a u32 whose lowest byte is the first octet.
#pragma once

#include <array>

#include "i4min/memory/types.h"

inline constexpr u8 packetMarker = 0xE3;
inline constexpr u32 udpPortOffset = 4;  // the datagrams' port is this far above the TCP port

enum IndexOpcode : u8 {
    // From clients, over TCP.
    OP_LOGON = 1,              // hash, u32 ID, u16 port, tags
    OP_GET_SERVER_LIST = 20,   // nothing
    OP_PUBLISH_FILES = 21,     // u32 count, file records
    OP_SEARCH = 22,            // a search tree
    OP_GET_SOURCES = 25,       // hash
    OP_ALTERNATE_SEARCH = 26,  // a search tree
    OP_REQUEST_CALLBACK = 28,  // u32 ID of a client that can't be called
    OP_MORE_RESULTS = 33,      // nothing
    // To clients, over TCP.
    OP_SERVER_LIST = 50,      // u8 count, (u32 address, u16 port)...
    OP_SEARCH_RESULTS = 51,   // u32 count, file records, u8 more
    OP_SERVER_STATUS = 52,    // u32 users, u32 files
    OP_CALLBACK_ASKED = 53,   // u32 address, u16 port
    OP_CALLBACK_FAILED = 54,  // u32 ID
    OP_SERVER_MESSAGE = 56,   // string
    OP_CLIENT_ID = 64,        // u32 ID
    OP_SERVER_IDENT = 65,     // 16 bytes, u32 address, u16 port, tags
    OP_FOUND_SOURCES = 66,    // hash, u8 count, (u32 ID, u16 port)...
    // Datagrams from clients.
    OP_PING = 150,                       // u32 stamp
    OP_EXTENDED_SEARCH = 152,            // a search tree
    OP_EXTENDED_GET_SOURCES = 154,       // hash
    OP_EXTENDED_CALLBACK = 156,          // u32 own ID, u16 own port, u32 ID of a client that can't be called
    OP_EXTENDED_ALTERNATE_SEARCH = 157,  // a search tree
    // Datagrams to clients.
    OP_PING_ANSWER = 151,               // u32 stamp, u32 users, u32 files
    OP_EXTENDED_RESULT = 153,           // one file record
    OP_EXTENDED_FOUND_SOURCES = 155,    // as OP_FOUND_SOURCES
    OP_EXTENDED_CALLBACK_FAILED = 158,  // u32 ID
};

struct OpcodeRow {
    u8 opcode;
    const char* name;
    bool datagram;
    u32 least;  // bytes of the body; what is beyond the format is passed over
};

// What clients send.
inline constexpr std::array<OpcodeRow, 13> indexRequests = {{
    {OP_LOGON, "log-on", false, 26},
    {OP_GET_SERVER_LIST, "server list", false, 0},
    {OP_PUBLISH_FILES, "publish", false, 4},
    {OP_SEARCH, "search", false, 0},
    {OP_GET_SOURCES, "sources", false, 16},
    {OP_ALTERNATE_SEARCH, "search", false, 0},
    {OP_REQUEST_CALLBACK, "callback", false, 4},
    {OP_MORE_RESULTS, "more results", false, 0},
    {OP_PING, "ping", true, 4},
    {OP_EXTENDED_SEARCH, "search", true, 1},
    {OP_EXTENDED_GET_SOURCES, "sources", true, 16},
    {OP_EXTENDED_CALLBACK, "callback", true, 10},
    {OP_EXTENDED_ALTERNATE_SEARCH, "search", true, 1},
}};

inline const OpcodeRow* findRequest(u8 opcode, bool datagram) {
    for (const OpcodeRow& row : indexRequests) {
        if (row.opcode == opcode && row.datagram == datagram) return &row;
    }
    return nullptr;
}

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
