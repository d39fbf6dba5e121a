#include "transport/ConnectRegistry.h"

#include <algorithm>
#include <memory>

#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/network/socket.h"
#include "meta/address.h"
#include "transport/SocketPool.h"
#include "transport/Transport.h"

bool ConnectRegistry::connect(Ref<Connection> connection) {
    if (!connection) return true;
    SocketPool& pool = connection->pool();
    // Constructed and, if refused, destroyed without the lock.
    auto task = std::make_unique<ConnectTask>(std::move(connection));
    i4_lock guard(lock_);
    for (LL<ConnectTask>::Cursor c; const ConnectTask* other = pending_.next(c);) {
        const Connection& there = *other->connection;
        if (!there.isClosing() && there.ip == task->connection->ip && there.port == task->connection->port)
            return false;
    }
    pending_.add(task.get());
    pool.addTask(std::move(task));
    return true;
}

void ConnectRegistry::done(ConnectTask* task) {
    i4_lock guard(lock_);
    pending_.remove(task);
}

ConnectTask::ConnectTask(Ref<Connection> target) : connection(std::move(target)) {}
ConnectTask::~ConnectTask() = default;

void ConnectTask::doTask(SocketPool* pool) {
    const std::unique_ptr<i4_socket_set> set = pool->transport().host.network.new_socket_set(0);
    if (work(*pool, *set)) abandon();
}

std::optional<Rest> ConnectTask::work(SocketPool& pool, i4_socket_set& set) {
    const Transport& transport = pool.transport();
    Attempt outcome = Attempt::failed;
    try {
        outcome = go(transport, set);
        if (outcome == Attempt::stands) connection->connected();
    } catch (const i4_err&) {
        outcome = Attempt::failed;
        transport.log.printLine("Exception during connection: Your client could be out of date.");
    }
    if (outcome == Attempt::waits) {
        return Rest::atMost(std::max(msBetween(transport.host.clock.now(), until_), 0) + 1);
    }
    leaveSet();
    transport.connects.done(this);
    // Done before: once in the pool, the connection may end at once and be connected again.
    if (outcome == Attempt::stands) {
        pool.addConnection(connection.get());
    } else {
        connection->connectFailed();
    }
    return std::nullopt;
}

ConnectTask::Attempt ConnectTask::go(const Transport& transport, i4_socket_set& set) {
    const Moment now = transport.host.clock.now();
    if (connection->isClosing()) return Attempt::failed;
    if (!socket_) {
        if (!begin(transport.host.network)) return Attempt::failed;
        until_ = later(now, transport.connects.limit);
    }
    const u32 outcome = socket_->proceed(I4_SELECT_WRITE | I4_SELECT_ERROR);
    if (outcome == 0) {
        if (now >= until_) return Attempt::failed;
        waitIn(set);
        return Attempt::waits;
    }
    if (outcome != I4_SELECT_WRITE) return Attempt::failed;
    leaveSet();
    socket_->set_blocking(false);
    connection->setSocket(std::move(socket_));
    return Attempt::stands;
}

bool ConnectTask::begin(i4_protocol& network) {
    if (isLowId(connection->ip)) return false;
    const std::unique_ptr<i4_address> address = network.resolve(ipToString(connection->ip).c_str(), 0, 0);
    if (!address) return false;
    address->set_port(static_cast<u16>(connection->port));
    socket_ = network.connect(*address, I4_STREAM, false);
    return socket_ != nullptr;
}

void ConnectTask::waitIn(i4_socket_set& set) {
    const u32 wanted = socket_->awaited();
    if (!set_) {
        socket_->add_to_set(set, wanted);
    } else if (wanted != asked_) {
        socket_->change_in_set(set, wanted);
    }
    set_ = &set;
    asked_ = wanted;
}

void ConnectTask::leaveSet() {
    if (set_ && socket_) socket_->remove_from_set(*set_);
    set_ = nullptr;
}

void ConnectTask::abandon() {
    leaveSet();
    connection->pool().transport().connects.done(this);
    connection->end();
}
