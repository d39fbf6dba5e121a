// UDPAnnex, a client's socket for datagrams.
#pragma once

#include <array>
#include <memory>

#include "i4min/file/file.h"
#include "i4min/memory/types.h"
#include "i4min/network/address.h"
#include "transport/Endpoint.h"
#include "transport/UDPPacket.h"

// A client's socket for datagrams, with a port that the system gives it at the first send. Queue a
// UDPPacket with send().
class UDPAnnex : public Endpoint {
  public:
    explicit UDPAnnex(SocketPool& pool);

    // Makes the socket and joins the pool; false, and said so, where the system gives none. Once, by the
    // owner of the finished object.
    bool open();

  private:
    std::array<u8, largestDatagram> block_{};

  protected:
    // A datagram, in `buffer_` from its marker on; reading past its end raises, which costs this datagram
    // only.
    virtual void handleDatagram() = 0;

    bool takesTurn() override;
    void turn() override;
    void turnEnded() override;

    std::unique_ptr<i4_address> from_;  // the sender of the datagram being handled, null between datagrams
    i4_ram_file_class buffer_;

  private:
    void receiveAll();
    void sendOne();
};
