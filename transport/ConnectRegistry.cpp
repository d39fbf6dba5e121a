#include "transport/ConnectRegistry.h"

#include <memory>

#include "app/UIInterface.h"
#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/network/socket.h"
#include "meta/address.h"
#include "transport/SocketPool.h"
#include "transport/Worker.h"

bool ConnectRegistry::connect(SocketPool* pool, Ref<Connection> connection) {
    if (!connection) return true;
    // Built and, where it is refused, destroyed without the lock.
    auto task = std::make_unique<ConnectTask>(std::move(connection));
    i4_lock guard(lock_);
    for (LL<ConnectTask>::Cursor c; const ConnectTask* other = pending_.next(c);) {
        const Connection& there = *other->connection;
        if (!there.isClosing() && there.ip == task->connection->ip && there.port == task->connection->port)
            return false;
    }
    pending_.add(task.get());
    pool->addTask(task.release());
    return true;
}

void ConnectRegistry::done(ConnectTask* task) {
    i4_lock guard(lock_);
    pending_.remove(task);
}

void ConnectTask::doTask(SocketPool* pool) {
    const std::unique_ptr<ConnectTask> self(this);
    bool done = false;
    try {
        attempt(*pool, done);
    } catch (const i4_err&) {
        theLog->printLine("Exception during connection: Your client could be out of date.");
    }
    connectRegistry.done(this);
    if (!done) connection->connectFailed();
}

void ConnectTask::attempt(SocketPool& pool, bool& done) {
    if (isLowId(connection->ip) || connection->isClosing()) return;
    const std::unique_ptr<i4_address> address =
        theProtocol->resolve(ipToString(connection->ip).c_str(), 0, 0);
    if (!address) return;
    address->set_port(static_cast<u16>(connection->port));
    std::unique_ptr<i4_socket> socket = theProtocol->connect(*address, I4_STREAM, false);
    if (!socket) return;
    {
        const Worker::Wait wait(Worker::current(), *socket);
        if (!wait.allowed) return;
        const u32 outcome = socket->ready(I4_SELECT_WRITE | I4_SELECT_ERROR, connectRegistry.limit, nullptr);
        if (outcome != I4_SELECT_WRITE || connection->isClosing()) return;
    }
    socket->set_blocking(false);
    connection->setSocket(std::move(socket), &pool);
    connection->connected();
    done = true;
    // From its first turn on it may end, and be asked for anew.
    connectRegistry.done(this);
    pool.addConnection(connection.get());
}

void ConnectTask::abandon() {
    const std::unique_ptr<ConnectTask> self(this);
    connectRegistry.done(this);
    connection->end();
}

void CleanupTask::doTask(SocketPool*) {
    const std::unique_ptr<CleanupTask> self(this);
    connection->end();
}
