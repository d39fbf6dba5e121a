// UDPDoor: a bound UDP socket.
#pragma once

#include <array>
#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/types.h"
#include "i4min/network/address.h"
#include "transport/Endpoint.h"
#include "transport/UDPPacket.h"

// A UDP socket that receives on a fixed port and can reply to senders.
// Thread: as Endpoint.
class UDPDoor : public Endpoint {
  public:
    UDPDoor(SocketPool& pool, u32 openPort);

    // Binds the port and joins the pool. If that fails, it prints a message and returns false.
    bool open(i32 timeout_ms);

    const u32 doorPort;

  private:
    std::array<u8, largestDatagram> inBlock_{};
    std::array<u8, largestDatagram> outBlock_{};

  protected:
    // As in UDPAnnex, with `inBuffer_`. Write a reply to `outBuffer_`, which starts at position 0.
    virtual void handleDatagram() = 0;
    // Sends `length` bytes of outBuffer_ to the sender of the current datagram.
    void reply(u32 length);

    bool takesTurn() override;
    void turn() override;
    void turnEnded() override;

    std::unique_ptr<i4_address> from_;
    i4_ram_file_class inBuffer_;
    i4_ram_file_class outBuffer_;
};
