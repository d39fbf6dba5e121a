// The messages between clients. docs/protocol.md tells what each brings about; a test compares it with this
// table.
#pragma once

#include "protocol/OpcodeTable.h"

enum PeerOpcode : u8 {
    OP_HELLO = 1,
    OP_PEER_OUT_OF_DATE = 5,
    OP_FILE_DATA = 70,
    OP_REQUEST_PARTS = 71,
    OP_NO_SUCH_FILE = 72,
    OP_STOP_UPLOAD = 73,
    OP_GET_SHARED_FILES = 74,
    OP_SHARED_FILES = 75,
    OP_HELLO_ANSWER = 76,
    OP_NEW_IDENTITY = 77,
    OP_CHAT_MESSAGE = 78,
    OP_GET_FILE_STATUS = 79,
    OP_FILE_STATUS = 80,
    OP_GET_HASH_SET = 81,
    OP_HASH_SET = 82,
    OP_CHAT_REFUSED = 83,
    OP_REQUEST_SLOT = 84,
    OP_SLOT_GRANTED = 85,
    OP_RELEASE_SLOT = 86,
    OP_SLOT_ENDED = 87,
    OP_GET_FILE_NAME = 88,
    OP_FILE_NAME = 89,
};

inline constexpr Opcode peerRows[] = {
    {OP_HELLO, "hello", Direction::both, 33, Opcode::unbounded,
     "u8 16, user, ip and u16 port of the user's server"},
    {OP_PEER_OUT_OF_DATE, "out of date", Direction::in, 0, Opcode::unbounded, "not read"},
    {OP_FILE_DATA, "file data", Direction::both, 24, Opcode::unbounded,
     "hash, u32 start, u32 end, the bytes from start to before end"},
    {OP_REQUEST_PARTS, "data wanted", Direction::both, 40, Opcode::unbounded,
     "hash, three u32 starts, three u32 ends; an empty range has its start as its end"},
    {OP_NO_SUCH_FILE, "no such file", Direction::both, 16, Opcode::unbounded, "hash"},
    {OP_STOP_UPLOAD, "stop sending", Direction::both, 16, Opcode::unbounded, "hash"},
    {OP_GET_SHARED_FILES, "shared files wanted", Direction::both, 0, Opcode::unbounded, "none"},
    {OP_SHARED_FILES, "shared files", Direction::both, 4, Opcode::unbounded, "list of files"},
    {OP_HELLO_ANSWER, "hello answered", Direction::both, 32, Opcode::unbounded,
     "user, ip and u16 port of the user's server"},
    {OP_NEW_IDENTITY, "new identity", Direction::both, 8, Opcode::unbounded,
     "u32 client ID, ip of the server that gave it"},
    {OP_CHAT_MESSAGE, "chat", Direction::both, 2, Opcode::unbounded, "string"},
    {OP_GET_FILE_STATUS, "file status wanted", Direction::both, 16, Opcode::unbounded, "hash"},
    {OP_FILE_STATUS, "file status", Direction::both, 18, Opcode::unbounded, "hash, array"},
    {OP_GET_HASH_SET, "part hashes wanted", Direction::both, 16, Opcode::unbounded, "hash"},
    {OP_HASH_SET, "part hashes", Direction::both, 18, Opcode::unbounded, "hash, u16 count, count hashes"},
    {OP_CHAT_REFUSED, "chat refused", Direction::both, 0, Opcode::unbounded, "none"},
    {OP_REQUEST_SLOT, "a slot wanted", Direction::both, 0, Opcode::unbounded, "none"},
    {OP_SLOT_GRANTED, "slot granted", Direction::both, 0, Opcode::unbounded, "none"},
    {OP_RELEASE_SLOT, "slot given back", Direction::both, 0, Opcode::unbounded, "none"},
    {OP_SLOT_ENDED, "slot ended", Direction::both, 0, Opcode::unbounded, "none"},
    {OP_GET_FILE_NAME, "file name wanted", Direction::both, 16, Opcode::unbounded, "hash"},
    {OP_FILE_NAME, "file name", Direction::both, 18, Opcode::unbounded, "hash, string"},
};
inline constexpr OpcodeTable peerMessages(peerRows);
