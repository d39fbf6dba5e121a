// UDPDoor, a bound socket for datagrams.
#pragma once

#include <array>
#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/types.h"
#include "i4min/network/address.h"
#include "transport/Endpoint.h"
#include "transport/UDPPacket.h"

// A bound socket for datagrams that can reply to their sender.
class UDPDoor : public Endpoint {
  public:
    UDPDoor(SocketPool& pool, u32 openPort);

    // Binds the port and joins the pool; false, and said so, where that fails.
    bool open(i32 timeout_ms);

    const u32 doorPort;

  private:
    std::array<u8, largestDatagram> inBlock_{};
    std::array<u8, largestDatagram> outBlock_{};

  protected:
    // As in UDPAnnex, in `inBuffer_`. A reply is written to `outBuffer_`, which stands at 0.
    virtual void handleDatagram() = 0;
    // Sends that many bytes of outBuffer_ to the sender of the datagram being handled.
    void reply(u32 length);

    bool takesTurn() override;
    void turn() override;
    void turnEnded() override;

    std::unique_ptr<i4_address> from_;
    i4_ram_file_class inBuffer_;
    i4_ram_file_class outBuffer_;
};
