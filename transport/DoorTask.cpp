#include "transport/DoorTask.h"

#include <cerrno>

#include "i4min/network/protocol.h"
#include "i4min/network/socket.h"
#include "transport/SocketPool.h"
#include "transport/Transport.h"

namespace {

constexpr u32 restLimit = 1000;  // ms

bool descriptorsRanOut(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

}  // namespace

DoorTask::DoorTask(SocketPool& pool, u32 openPort) : Endpoint(pool, "Door"), doorPort(openPort) {}

bool DoorTask::canAccept() { return true; }

bool DoorTask::listen(i32 timeout_ms) {
    if (socket()) return true;
    std::unique_ptr<i4_socket> made =
        transport().host.network.listen(static_cast<u16>(doorPort), timeout_ms, I4_STREAM, nullptr);
    if (!made) {
        transport().log.printLine(
            "Can't Listen for connections. Please adjust your proxy settings in the options tab.");
        return false;
    }
    join(std::move(made));
    return true;
}

u32 DoorTask::wantedEvents() {
    if (resting_ &&
        (pool().leftCount() != leftAtRest_ || transport().host.clock.ticks() - restedAt_ >= restLimit)) {
        resting_ = false;
    }
    return resting_ ? I4_SELECT_ERROR : I4_SELECT_READ | I4_SELECT_ERROR;
}

bool DoorTask::takesTurn() {
    if (lastEvents_ & I4_SELECT_ERROR) {
        setBusy(true);
        pool().removeConnection(this);
        return false;
    }
    return (lastEvents_ & I4_SELECT_READ) && !resting_;
}

void DoorTask::turn() {
    std::unique_ptr<i4_socket> accepted;
    errno = 0;
    if (!socket()->accept(accepted)) {
        if (descriptorsRanOut(errno)) {
            outOfDescriptors();
        } else {
            transport().log.printVerbose("Door couldn't accept new socket?\n");
        }
        return;
    }
    pool().noteProgress();
    reported_ = false;
    if (!canAccept()) {
        accepted->cancel();
        return;
    }
    accepted->set_blocking(false);
    pool().addConnection(newConnection(std::move(accepted)).get());
}

void DoorTask::outOfDescriptors() {
    resting_ = true;
    restedAt_ = transport().host.clock.ticks();
    leftAtRest_ = pool().leftCount();
    if (reported_) return;
    reported_ = true;
    transport().log.printLine("Too many open files: new connections on port %u wait until others end.",
                              localPort());
}
