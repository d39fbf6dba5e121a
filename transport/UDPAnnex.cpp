#include "transport/UDPAnnex.h"

#include "app/UIInterface.h"
#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/network/socket.h"
#include "transport/SocketPool.h"

UDPAnnex::UDPAnnex(SocketPool* pool)
    : Connection(nullptr, pool), buffer_(block_.data(), largestDatagram, 0) {}

bool UDPAnnex::open() {
    auto made = std::make_unique<i4_tcpip_sock>(I4_DATAGRAM);
    if (made->error()) {
        theLog->print("ERROR: UDPAnnex::UDPAnnex()\n");
        return false;
    }
    made->set_blocking(false);
    setOwnSocket(std::move(made));
    pool()->addConnection(this);
    return true;
}

bool UDPAnnex::isReady() {
    if (isBusy() || !socket() || !pool()->set()) return false;
    if (isClosing()) return Connection::isReady();
    lastEvents_ = socket()->check_in_set(*pool()->set(), I4_SELECT_READ | I4_SELECT_WRITE | I4_SELECT_ERROR);
    if (lastEvents_ & I4_SELECT_ERROR) return false;
    if (!(lastEvents_ & I4_SELECT_READ) && !((lastEvents_ & I4_SELECT_WRITE) && hasToSend())) return false;
    setBusy(true);
    return true;
}

void UDPAnnex::doTask(SocketPool* pool) {
    const Ref<UDPAnnex> self(this);
    if (isClosing()) {
        pool->removeConnection(this);
        return;
    }
    try {
        if (lastEvents_ & I4_SELECT_READ) receiveAll(*pool);
        if (lastEvents_ & I4_SELECT_WRITE) sendOne(*pool);
    } catch (const i4_err&) {
        theLog->printVerbose("*** Exception in UDPAnnex\n");
        from_.reset();
    }
    setBusy(false);
}

void UDPAnnex::receiveAll(SocketPool& pool) {
    for (int n = 0; n < datagramsPerTurn && readDatagram(*socket(), buffer_, from_); ++n) {
        pool.noteProgress();
        handleDatagram();
    }
    from_.reset();
}

void UDPAnnex::sendOne(SocketPool& pool) {
    const std::unique_ptr<Packet> packet = takeFirstToSend();
    if (!packet) return;
    pool.noteProgress();
    u32 bytes = 0;
    // While the network is down, no ping to any server can be sent.
    if (packet->send(*socket(), bytes) == Packet::failed && theLog->mayComplain())
        theLog->printFlush("Bad UDPAnnex out packet");
    countMoved(bytesSent, bytes);
    packet->sent();
}
