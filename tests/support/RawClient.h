// A client of an index server made of plain sockets: it logs on, publishes, and listens.
#pragma once

#include "protocol/ServerProtocol.h"
#include "tests/support/Caller.h"

// Thread: one. Owns: its two sockets.
class RawClient : public Caller {
  public:
    explicit RawClient(u32 serverPort) : Caller(serverPort) {}

    // The ID that the server assigns. The server tests the port first; if it is closed, the ID is a low one.
    u32 logOn() {
        say(opcode(OP_LOGON, namedRecord(hashOf('r'), 0, door_.port(), "raw")));
        return u32At(await(OP_CLIENT_ID), 0);
    }
    void shutDoor() { door_.close(); }

  private:
    Listener door_;
};

// A file of 1,000 bytes as it is published.
inline std::string sharedFile(u8 mark, const std::string& name, const std::string& type) {
    return bytesOf(hashOf(mark)) + le32(0) + le16(0) + le32(3) + "\2" + text16("\1") + text16(name) + "\3" +
           text16("\2") + le32(1000) + "\2" + text16("\3") + text16(type);
}
