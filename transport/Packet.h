// Packet, one framed message of a TCP conversation, and the budgets that limit a turn.
#pragma once

#include <array>
#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/types.h"
#include "protocol/OpcodeTable.h"

class Serializable;
class i4_socket;

// No limit on a turn's bytes.
constexpr i32 unlimitedBudget = 0xFFFFFFF;
// The bytes that packets may still send and receive in a turn: the pool grants and charges them, Packet caps
// its chunks at them. A plain value.
struct Budgets {
    i32 sendBudget = unlimitedBudget;
    i32 recvBudget = unlimitedBudget;
};

// A packet on the wire:
//
//   offset  bytes  field
//        0      1  marker, 0xE3
//        1      4  body length n, u32 little-endian; at least 1
//        5      n  body; its first byte is the opcode
//
// Built by its sender straight in `stream`, and sent from there; or received, a piece at a time. Thread:
// one at a time. Owns the stream's buffer.
class Packet {
  public:
    static constexpr u8 marker = packetMarker;
    static constexpr u32 headerSize = 5;
    // The memory that a header alone is given; more comes as bytes arrive.
    static constexpr u32 firstBlock = 64 * 1024;

    enum Result { more = 0, complete = 1, failed = 2 };

    Packet();                     // empty, to receive into
    explicit Packet(u32 length);  // to write a body of that length into; a longer one makes the buffer grow
    Packet(const Packet&) = delete;
    Packet& operator=(const Packet&) = delete;
    virtual ~Packet();

    // Writes as much as socket and budget take. `out_bytes` is what this call moved.
    [[nodiscard]] virtual Result send(i4_socket& socket, const Budgets& budgets, u32& out_bytes);
    // Once, when the whole packet has left. On the pool's thread, within the connection's turn.
    virtual void sent();

    // Reads as much as socket and budget give: the rest of the header, then of the body.
    // Failed: the socket, a wrong marker, a length of 0 or above `limit`. Complete: `stream` stands at
    // the opcode and ends with the body.
    [[nodiscard]] Result receive(i4_socket& socket, const Budgets& budgets, u32& out_bytes, u32 limit);

    // A packet of its own with the same body, nothing of it sent.
    std::unique_ptr<Packet> clone() const;
    // Appends the network form of a record or a list of them.
    void put(const Serializable& content);
    // Takes the stream's position as the length, for a sender that wrote another amount than it told.
    void finish();
    // Back to the empty packet; the buffer is freed.
    void reset();

    std::array<u8, headerSize> header{};
    u32 headerDone = 0;  // header bytes that have moved
    u32 size = 0;        // body length
    u32 bodyDone = 0;    // body bytes that have moved
    i4_ram_file_class stream;

  private:
    void setHeader();
    Result beginBody(u32 limit);
    void growBody();
};

// A packet to send: the opcode is written, and there's room for a payload of that many bytes.
std::unique_ptr<Packet> makePacket(u8 opcode, u32 payload = 0);
// A packet whose payload is the network form of a record or a list of them.
std::unique_ptr<Packet> makePacket(u8 opcode, const Serializable& content);
