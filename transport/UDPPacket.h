// UDPPacket: a datagram in a connection's queue.
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

// The largest datagram received or sent as a reply; longer ones are truncated.
constexpr u32 largestDatagram = 3072;

// A datagram to send. Its length is fixed: body bytes that aren't written are sent as zeros, and writes past
// the end are dropped.
// Thread and ownership: as Packet.
class UDPPacket : public Packet {
  public:
    UDPPacket(i4_protocol& network, u32 bodyLength, u32 toIp, u32 toPort);  // the marker is written already

    // Sends the whole datagram. Returns complete whether or not the system accepted it, and failed if the
    // address couldn't be resolved.
    Result send(i4_socket& socket, const Budgets& budgets, u32& out_bytes) override;

    const u32 ip;  // network order
    const u32 port;

  private:
    i4_protocol& network_;
};

// The most datagrams handled in one turn, so that a flood leaves other connections their turns.
constexpr int datagramsPerTurn = 256;

// Reads the next datagram into the stream's block and limits the stream to it. Returns false and no sender if
// there is none.
bool readDatagram(i4_socket& socket, i4_ram_file_class& stream, std::unique_ptr<i4_address>& from);
