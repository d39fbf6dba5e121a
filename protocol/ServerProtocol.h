// The messages between a client and an index server, over TCP and by datagram. docs/protocol.md tells what
// each brings about; a test compares it with these tables.
#pragma once

#include "protocol/OpcodeTable.h"

inline constexpr u32 udpPortOffset = 4;  // the datagrams' port is this far above the TCP port

enum ServerOpcode : u8 {
    OP_LOGON = 1,
    OP_GET_SERVER_LIST = 20,
    OP_PUBLISH_FILES = 21,
    OP_SEARCH = 22,
    OP_GET_SOURCES = 25,
    OP_ALTERNATE_SEARCH = 26,
    OP_REQUEST_CALLBACK = 28,
    OP_MORE_RESULTS = 33,
    OP_OUT_OF_DATE = 5,
    OP_SERVER_LIST = 50,
    OP_SEARCH_RESULTS = 51,
    OP_SERVER_STATUS = 52,
    OP_CALLBACK_ASKED = 53,
    OP_CALLBACK_FAILED = 54,
    OP_SERVER_MESSAGE = 56,
    OP_DROPPED_TEXT = 62,
    OP_DROPPED_USER = 63,
    OP_CLIENT_ID = 64,
    OP_SERVER_IDENT = 65,
    OP_FOUND_SOURCES = 66,
    OP_FOUND_USERS = 67,
    OP_PING = 150,
    OP_PING_ANSWER = 151,
    OP_EXTENDED_SEARCH = 152,
    OP_EXTENDED_RESULT = 153,
    OP_EXTENDED_GET_SOURCES = 154,
    OP_EXTENDED_FOUND_SOURCES = 155,
    OP_EXTENDED_CALLBACK = 156,
    OP_EXTENDED_ALTERNATE_SEARCH = 157,
    OP_EXTENDED_CALLBACK_FAILED = 158,
};

inline constexpr Opcode serverRows[] = {
    {OP_LOGON, "log-on", Direction::out, 26, Opcode::unbounded, "user: the client itself"},
    {OP_GET_SERVER_LIST, "server list", Direction::out, 0, 0, "none"},
    {OP_PUBLISH_FILES, "publish", Direction::out, 4, Opcode::unbounded, "list of files"},
    {OP_SEARCH, "search", Direction::out, 0, Opcode::unbounded, "tree, or nothing"},
    {OP_GET_SOURCES, "sources", Direction::out, 16, 16, "hash of the file"},
    {OP_ALTERNATE_SEARCH, "search, second kind", Direction::out, 0, Opcode::unbounded, "tree, or nothing"},
    {OP_REQUEST_CALLBACK, "callback", Direction::out, 4, 4,
     "u32 ID of the firewalled client that is to call"},
    {OP_MORE_RESULTS, "more results", Direction::out, 0, 0, "none"},
    {OP_OUT_OF_DATE, "out of date", Direction::in, 0, Opcode::unbounded, "not read"},
    {OP_SERVER_LIST, "server list", Direction::in, 1, Opcode::unbounded,
     "u8 count, count times ip and u16 port"},
    {OP_SEARCH_RESULTS, "results", Direction::in, 5, Opcode::unbounded, "list of files, u8 more"},
    {OP_SERVER_STATUS, "status", Direction::in, 8, Opcode::unbounded, "u32 users, u32 files"},
    {OP_CALLBACK_ASKED, "call", Direction::in, 6, Opcode::unbounded, "ip, u16 port"},
    {OP_CALLBACK_FAILED, "callback failed", Direction::in, 4, Opcode::unbounded, "u32 client ID"},
    {OP_SERVER_MESSAGE, "message", Direction::in, 2, Opcode::unbounded, "string"},
    {OP_DROPPED_TEXT, "dropped", Direction::in, 6, Opcode::unbounded, "u32, string"},
    {OP_DROPPED_USER, "dropped", Direction::in, 1, Opcode::unbounded, "u8 count; if it isn't 0, one user"},
    {OP_CLIENT_ID, "client ID", Direction::in, 4, Opcode::unbounded, "u32"},
    {OP_SERVER_IDENT, "identity", Direction::in, 26, Opcode::unbounded, "server"},
    {OP_FOUND_SOURCES, "sources", Direction::in, 16, Opcode::unbounded,
     "hash, u8 count, count times u32 client ID and u16 port"},
    {OP_FOUND_USERS, "users", Direction::in, 4, Opcode::unbounded,
     "list of users; where bytes are left, a body as of 66"},
};
inline constexpr OpcodeTable serverMessages(serverRows);

// Sizes as a server asks for them: a client reads as far as the fields go.
inline constexpr Opcode serverDatagramRows[] = {
    {OP_PING, "ping", Direction::out, 4, Opcode::unbounded, "u32 time stamp"},
    {OP_PING_ANSWER, "ping answer", Direction::in, 12, Opcode::unbounded,
     "the same u32, u32 users, u32 files"},
    {OP_EXTENDED_SEARCH, "search", Direction::out, 1, Opcode::unbounded, "tree"},
    {OP_EXTENDED_RESULT, "one result", Direction::in, 26, Opcode::unbounded, "file"},
    {OP_EXTENDED_GET_SOURCES, "sources", Direction::out, 16, Opcode::unbounded, "hash"},
    {OP_EXTENDED_FOUND_SOURCES, "sources", Direction::in, 16, Opcode::unbounded,
     "hash, u8 count, count times u32 client ID and u16 port"},
    {OP_EXTENDED_CALLBACK, "callback", Direction::out, 10, Opcode::unbounded,
     "u32 own client ID, u16 own port, u32 ID of the client that is to call"},
    {OP_EXTENDED_ALTERNATE_SEARCH, "search, second kind", Direction::out, 1, Opcode::unbounded, "tree"},
    {OP_EXTENDED_CALLBACK_FAILED, "callback failed", Direction::in, 4, Opcode::unbounded, "u32 client ID"},
};
inline constexpr OpcodeTable serverDatagrams(serverDatagramRows);
