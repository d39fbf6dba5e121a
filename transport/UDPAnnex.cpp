#include "transport/UDPAnnex.h"

#include "app/UIInterface.h"
#include "i4min/network/socket.h"
#include "transport/SocketPool.h"

UDPAnnex::UDPAnnex(SocketPool* pool)
    : Endpoint(pool, "UDPAnnex"), buffer_(block_.data(), largestDatagram, 0) {}

bool UDPAnnex::open() {
    auto made = std::make_unique<i4_tcpip_sock>(I4_DATAGRAM);
    if (made->error()) {
        theLog->print("ERROR: UDPAnnex::UDPAnnex()\n");
        return false;
    }
    join(std::move(made));
    return true;
}

bool UDPAnnex::takesTurn() {
    if (lastEvents_ & I4_SELECT_ERROR) return false;
    return (lastEvents_ & I4_SELECT_READ) || ((lastEvents_ & I4_SELECT_WRITE) && hasToSend());
}

void UDPAnnex::turn(SocketPool& pool) {
    if (lastEvents_ & I4_SELECT_READ) receiveAll(pool);
    if (lastEvents_ & I4_SELECT_WRITE) sendOne(pool);
}

void UDPAnnex::turnEnded() { from_.reset(); }

void UDPAnnex::receiveAll(SocketPool& pool) {
    for (int n = 0; n < datagramsPerTurn && readDatagram(*socket(), buffer_, from_); ++n) {
        pool.noteProgress();
        handleDatagram();
    }
}

void UDPAnnex::sendOne(SocketPool& pool) {
    const std::unique_ptr<Packet> packet = takeFirstToSend();
    if (!packet) return;
    pool.noteProgress();
    u32 bytes = 0;
    // While the network is down, no ping to any server can be sent.
    if (packet->send(*socket(), bytes) == Packet::failed &&
        theLog->mayComplain(UIInterface::Complaint::datagram))
        theLog->printFlush("Bad UDPAnnex out packet");
    countMoved(bytesSent, bytes);
    packet->sent();
}
