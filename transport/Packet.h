// Packet: one framed message of a TCP connection, and the budgets of a turn.
#pragma once

#include <array>
#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/types.h"
#include "protocol/OpcodeTable.h"

class Serializable;
class i4_socket;

// Means no limit.
constexpr i32 unlimitedBudget = 0xFFFFFFF;
// The bytes that a turn may still send and receive. The pool grants and charges them; Packet limits its reads
// and writes to them. A plain value.
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
// An outgoing packet is written directly to `stream` and sent from there; an incoming one arrives in pieces.
// Thread: one at a time. Owns: the stream's buffer.
class Packet {
  public:
    static constexpr u8 marker = packetMarker;
    static constexpr u32 headerSize = 5;
    // Memory allocated on receipt of a header; it grows as the body arrives.
    static constexpr u32 firstBlock = 64 * 1024;

    enum Result { more = 0, complete = 1, failed = 2 };

    Packet();                     // empty, for receiving
    explicit Packet(u32 length);  // for writing a body of `length` bytes; the buffer grows if needed
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

    // Returns a new packet with the same body, of which nothing is sent yet.
    std::unique_ptr<Packet> clone() const;
    // Appends the network form of a record or a list of them.
    void put(const Serializable& content);
    // Takes the stream's position as the length, for a sender that wrote another amount than it told.
    void finish();
    // Makes the packet empty and frees the buffer.
    void reset();

    std::array<u8, headerSize> header{};
    u32 headerDone = 0;  // header bytes moved
    u32 size = 0;        // body length
    u32 bodyDone = 0;    // body bytes moved
    i4_ram_file_class stream;

  private:
    void setHeader();
    Result beginBody(u32 limit);
    void growBody();
};

// Makes a packet with the opcode written and room for `payload` bytes.
std::unique_ptr<Packet> makePacket(u8 opcode, u32 payload = 0);
// Makes a packet whose payload is the network format of a record or a list.
std::unique_ptr<Packet> makePacket(u8 opcode, const Serializable& content);
