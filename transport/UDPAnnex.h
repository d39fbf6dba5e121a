// UDPAnnex: a client's UDP socket.
#pragma once

#include <array>
#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/types.h"
#include "i4min/network/address.h"
#include "transport/Endpoint.h"
#include "transport/UDPPacket.h"

// A UDP socket whose port the system assigns at the first send. Queue a UDPPacket with send().
// Thread: as Endpoint.
class UDPAnnex : public Endpoint {
  public:
    explicit UDPAnnex(SocketPool& pool);

    // Makes the socket and joins the pool. If the system refuses, it prints a message and returns false. The
    // owner calls it once, after construction.
    bool open();

  private:
    std::array<u8, largestDatagram> block_{};

  protected:
    // Handles the datagram in `buffer_`, which starts at the marker. Reading past its end raises an error,
    // which drops this datagram only.
    virtual void handleDatagram() = 0;

    bool takesTurn() override;
    void turn() override;
    void turnEnded() override;

    std::unique_ptr<i4_address> from_;  // sender of the datagram being handled; null between datagrams
    i4_ram_file_class buffer_;

  private:
    void receiveAll();
    void sendOne();
};
