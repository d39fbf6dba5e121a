#include "transport/UDPDoor.h"

#include <algorithm>

#include "app/UIInterface.h"
#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/network/socket.h"
#include "transport/SocketPool.h"

UDPDoor::UDPDoor(SocketPool* pool, u32 openPort)
    : Connection(nullptr, pool),
      doorPort(openPort),
      inBuffer_(inBlock_.data(), largestDatagram, 0),
      outBuffer_(outBlock_.data(), largestDatagram, 0) {}

bool UDPDoor::open(i32 timeout_ms) {
    std::unique_ptr<i4_socket> made =
        theProtocol->listen(static_cast<u16>(doorPort), timeout_ms, I4_DATAGRAM, nullptr);
    if (!made) {
        theLog->print("ERROR: couldn't create UDPDoor\n");
        return false;
    }
    made->set_blocking(false);
    if (const std::unique_ptr<i4_address> local = made->local_address()) localPort_ = local->get_port();
    setOwnSocket(std::move(made));
    pool()->addConnection(this);
    return true;
}

bool UDPDoor::isReady() {
    if (isBusy() || !socket() || !pool()->set()) return false;
    if (isClosing()) return Connection::isReady();
    lastEvents_ = socket()->check_in_set(*pool()->set(), I4_SELECT_READ);
    if (lastEvents_ == 0) return false;
    setBusy(true);
    return true;
}

void UDPDoor::doTask(SocketPool* pool) {
    const Ref<UDPDoor> self(this);
    if (isClosing()) {
        pool->removeConnection(this);
        return;
    }
    try {
        for (int n = 0; n < datagramsPerTurn && readDatagram(*socket(), inBuffer_, from_); ++n) {
            pool->noteProgress();
            outBuffer_.seek(0);
            handleDatagram();
        }
    } catch (const i4_err&) {
        theLog->printVerbose("*** Exception in UDPDoor\n");
    }
    from_.reset();
    setBusy(false);
}

void UDPDoor::reply(u32 length) {
    if (from_) socket()->write_to(outBuffer_.buffer(), std::min(length, largestDatagram), *from_);
}
