#include "transport/UDPDoor.h"

#include <algorithm>

#include "i4min/network/protocol.h"
#include "i4min/network/socket.h"
#include "transport/SocketPool.h"
#include "transport/Transport.h"

UDPDoor::UDPDoor(SocketPool& pool, u32 openPort)
    : Endpoint(pool, "UDPDoor"),
      doorPort(openPort),
      inBuffer_(inBlock_.data(), largestDatagram, 0),
      outBuffer_(outBlock_.data(), largestDatagram, 0) {}

bool UDPDoor::open(i32 timeout_ms) {
    std::unique_ptr<i4_socket> made =
        transport().host.network.listen(static_cast<u16>(doorPort), timeout_ms, I4_DATAGRAM, nullptr);
    if (!made) {
        transport().log.print("ERROR: couldn't create UDPDoor\n");
        return false;
    }
    join(std::move(made));
    return true;
}

bool UDPDoor::takesTurn() { return lastEvents_ & I4_SELECT_READ; }

void UDPDoor::turn() {
    for (int n = 0; n < datagramsPerTurn && readDatagram(*socket(), inBuffer_, from_); ++n) {
        pool().noteProgress();
        outBuffer_.seek(0);
        handleDatagram();
    }
}

void UDPDoor::turnEnded() { from_.reset(); }

void UDPDoor::reply(u32 length) {
    if (from_) socket()->write_to({outBuffer_.buffer(), std::min(length, largestDatagram)}, *from_);
}
