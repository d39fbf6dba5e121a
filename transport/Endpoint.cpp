#include "transport/Endpoint.h"

#include "i4min/memory/error.h"
#include "i4min/network/address.h"
#include "i4min/network/socket.h"
#include "transport/SocketPool.h"
#include "transport/Transport.h"

Endpoint::Endpoint(SocketPool& pool, const char* name) : Connection(pool, nullptr), name_(name) {}

void Endpoint::join(std::unique_ptr<i4_socket> made) {
    made->set_blocking(false);
    if (const std::unique_ptr<i4_address> local = made->local_address()) localPort_ = local->get_port();
    setSocket(std::move(made));
    pool().addConnection(this);
}

bool Endpoint::isReady() {
    if (isBusy()) return false;
    if (isClosing()) return Connection::isReady();
    if (!socket() || !pool().set()) return false;
    lastEvents_ = socket()->check_in_set(*pool().set(), I4_SELECT_READ | I4_SELECT_WRITE | I4_SELECT_ERROR);
    if (!takesTurn()) return false;
    setBusy(true);
    return true;
}

void Endpoint::doTask(SocketPool* pool) {
    const Ref<Endpoint> self(this);
    if (isClosing()) {
        pool->removeConnection(this);
        return;
    }
    try {
        turn();
    } catch (const i4_err&) {
        transport().log.printVerbose("*** Exception in %s\n", name_);
    }
    turnEnded();
    setBusy(false);
}

void Endpoint::turnEnded() {}
