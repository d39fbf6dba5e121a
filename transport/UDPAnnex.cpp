#include "transport/UDPAnnex.h"

#include "i4min/network/protocol.h"
#include "transport/SocketPool.h"
#include "transport/Transport.h"

UDPAnnex::UDPAnnex(SocketPool& owner)
    : Endpoint(owner, "UDPAnnex"), buffer_(block_.data(), largestDatagram, 0) {
    buffer_.setLog(&owner.transport().log);
}

bool UDPAnnex::open() {
    std::unique_ptr<i4_socket> made = transport().host.network.datagrams();
    if (!made) {
        transport().log.print("ERROR: UDPAnnex::UDPAnnex()\n");
        return false;
    }
    join(std::move(made));
    return true;
}

bool UDPAnnex::takesTurn() {
    if (lastEvents_ & I4_SELECT_ERROR) return false;
    return (lastEvents_ & I4_SELECT_READ) || ((lastEvents_ & I4_SELECT_WRITE) && hasToSend());
}

void UDPAnnex::turn() {
    if (lastEvents_ & I4_SELECT_READ) receiveAll();
    if (lastEvents_ & I4_SELECT_WRITE) sendOne();
}

void UDPAnnex::turnEnded() { from_.reset(); }

void UDPAnnex::receiveAll() {
    for (int n = 0; n < datagramsPerTurn && readDatagram(*socket(), buffer_, from_); ++n) {
        pool().noteProgress();
        handleDatagram();
    }
}

void UDPAnnex::sendOne() {
    const std::unique_ptr<Packet> packet = takeFirstToSend();
    if (!packet) return;
    pool().noteProgress();
    u32 bytes = 0;
    // While the network is down, every ping fails.
    if (packet->send(*socket(), {}, bytes) == Packet::failed &&
        transport().log.mayComplain(UIInterface::Complaint::datagram))
        transport().log.printFlush("Bad UDPAnnex out packet");
    countMoved(bytesSent, bytes);
    packet->sent();
}
