// The messages between clients, by opcode; peer/Peer.cpp has the table of their bodies.
#pragma once

#include "i4min/memory/types.h"

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
