// UDPPacket, a datagram in a connection's queue.
//
// A datagram on the wire:
//
//   offset  bytes  field
//        0      1  marker, 0xE3
//        1      n  body; its first byte is the opcode
//
// There is no length field: a datagram is complete or absent.
#pragma once

#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/types.h"
#include "transport/Packet.h"

class i4_address;
class i4_protocol;
class i4_socket;

// The largest datagram that is taken or answered; a longer one is cut.
constexpr u32 largestDatagram = 3072;

// A datagram to be sent. Its length is fixed: what isn't written of the body goes out as zeros, and
// writes past it are cut.
class UDPPacket : public Packet {
  public:
    UDPPacket(i4_protocol& network, u32 bodyLength, u32 toIp, u32 toPort);  // the marker is written already

    // Sends it whole. Complete means gone, whether or not the system took it; failed, that the address
    // couldn't be resolved.
    Result send(i4_socket& socket, const Budgets& budgets, u32& out_bytes) override;

    const u32 ip;  // network order
    const u32 port;

  private:
    i4_protocol& network_;
};

// The datagrams that are handled in one turn; those of a flood wait for the next turns, between which
// others have theirs.
constexpr int datagramsPerTurn = 256;

// Reads the next datagram into the stream's block, and puts the stream on it and on nothing behind it.
// False, with no sender, where there is none.
bool readDatagram(i4_socket& socket, i4_ram_file_class& stream, std::unique_ptr<i4_address>& from);
