#include "transport/Connection.h"

#include <cassert>

#include "i4min/memory/error.h"
#include "i4min/network/socket.h"
#include "meta/address.h"
#include "protocol/OpcodeTable.h"
#include "transport/SocketPool.h"
#include "transport/Transport.h"

namespace {

constexpr u32 firstBodyLimit = 64 * 1024;
constexpr u32 laterBodyLimit = 8 * 1024 * 1024;
constexpr u32 defaultQueueLimit = 16 * 1024 * 1024;
constexpr u32 defaultStallLimit = 120'000;
constexpr u32 allEvents = I4_SELECT_READ | I4_SELECT_WRITE | I4_SELECT_ERROR;

// True if the protocol's table allows us to send this packet.
[[maybe_unused]] bool conforms(const OpcodeTable& table, const Packet& packet) {
    if (packet.size == 0) return false;
    const u8 opcode = packet.stream.buffer()[0];
    return table.find(opcode, Direction::out) && table.fits(opcode, Direction::out, packet.size - 1);
}

}  // namespace

Connection::Connection(SocketPool& pool, std::unique_ptr<i4_socket> socket)
    : pool_(pool), cameIn_(socket != nullptr) {
    setSocket(std::move(socket));
    ip = remoteIp_;
    addressText_ = ipToString(remoteIp_);
}

Connection::Connection(SocketPool& pool, u32 peerIp, u32 peerPort)
    : ip(peerIp), port(peerPort), pool_(pool), addressText_(ipToString(peerIp)), cameIn_(false) {}

Connection::~Connection() {
    while (std::unique_ptr<Packet> packet = takeFirstToSend()) packet.reset();
}

const Transport& Connection::transport() const { return pool_.transport(); }

void Connection::setSocket(std::unique_ptr<i4_socket> socket) {
    socket_ = std::move(socket);
    if (!socket_) return;
    const std::unique_ptr<i4_address> remote = socket_->remote_address();
    if (remote) remoteIp_ = ipOfAddress(*remote);
}

void Connection::getAddress(i4_string& out) const {
    if (remoteIp_ != 0) out = ipToString(remoteIp_);
}

void Connection::setIp(u32 newIp) {
    checkPoolThread();
    ip = newIp;
    i4_lock guard(textLock_);
    addressText_ = ipToString(newIp);
}

i4_string Connection::getText() {
    i4_lock guard(textLock_);
    return addressText_;
}

// Sending.

void Connection::send(std::unique_ptr<Packet> packet) {
    if (!packet) return;
    assert(!opcodes() || conforms(*opcodes(), *packet));
    bool tooMuch = false;
    {
        i4_guard guard(sendQueue_);
        if (!isDead()) {
            tooMuch = queuedBytes_ > queueLimit();
            queuedPackets_.add(1);
            queuedBytes_.add(packet->size);
            sendQueue_.addUnsafe(packet.release());
        }
    }
    if (packet) return;  // dead: this call destroys the packet
    if (tooMuch) close();
    pool_.wake();
}

std::unique_ptr<Packet> Connection::takeFirstToSend() {
    i4_guard guard(sendQueue_);
    std::unique_ptr<Packet> packet(sendQueue_.firstUnsafe());
    if (packet) {
        sendQueue_.removeUnsafe(packet.get());
        queuedPackets_ = queuedPackets_ - 1;
        queuedBytes_ = queuedBytes_ - packet->size;
    }
    return packet;
}

// Ending.

void Connection::close() {
    if (isDead()) return;
    closing_ = 1;
    pool_.wake();
}

void Connection::end() {
    {
        i4_guard guard(sendQueue_);
        if (dead_.exchange(true, std::memory_order_acq_rel)) return;
    }
    setBusy(true);
    gone();
    {
        i4_lock guard(lock_);
        socket_.reset();
        incoming_.reset();
    }
    while (std::unique_ptr<Packet> packet = takeFirstToSend()) packet.reset();
}

void Connection::gone() {}

void Connection::cleanup() {
    checkPoolThread();
    if (inSet_ && pool_.set()) socket_->remove_from_set(*pool_.set());
    inSet_ = false;
    end();
}

void Connection::connected() {}
void Connection::connectFailed() { end(); }

// Defaults that subclasses override.

bool Connection::handleMessage(u8 opcode, i4_ram_file_class&) {
    transport().log.printVerbose("Unknown msg from Connection: %d\n", opcode);
    return true;
}

bool Connection::firstMessage(u8 opcode, i4_ram_file_class& stream) {
    gotFirst = 1;
    return handleMessage(opcode, stream);
}

Ref<Connection> Connection::spawn(std::unique_ptr<i4_socket>) { return {}; }
const Budgets& Connection::budgets() const { return pool_.budgets(); }
bool Connection::canAccept() { return false; }
bool Connection::isAllowed() { return true; }
u32 Connection::bodyLimit() const { return gotFirst ? laterBodyLimit : firstBodyLimit; }
u32 Connection::queueLimit() const { return defaultQueueLimit; }
bool Connection::awaitsFirst() const { return cameIn_ && !gotFirst; }
u32 Connection::stallLimit() const { return defaultStallLimit; }
u32 Connection::wantedEvents() {
    return hasToSend() ? allEvents : static_cast<u32>(I4_SELECT_READ | I4_SELECT_ERROR);
}
const OpcodeTable* Connection::opcodes() const { return nullptr; }

// Readiness.

void Connection::addToSet() {
    checkPoolThread();
    if (!socket_ || inSet_ || !pool_.set()) return;
    asked_ = wantedEvents();
    socket_->add_to_set(*pool_.set(), asked_);
    inSet_ = true;
}

void Connection::checkPoolThread(const char* function) const { pool_.checkOwnThread(function); }

void Connection::refreshInterest() {
    if (!inSet_) return;
    const u32 wanted = wantedEvents();
    if (wanted == asked_) return;
    asked_ = wanted;
    socket_->change_in_set(*pool_.set(), asked_);
}

bool Connection::isReady() {
    checkPoolThread();
    if (isBusy()) return false;
    if (closing_) {
        setBusy(true);
        return true;
    }
    if (!inSet_) return false;
    lastEvents_ = socket_->check_in_set(*pool_.set(), allEvents);
    if (lastEvents_ & I4_SELECT_ERROR) {
        setBusy(true);
        pool_.removeConnection(this);
        return false;
    }
    if ((lastEvents_ & I4_SELECT_READ) || ((lastEvents_ & I4_SELECT_WRITE) && hasToSend())) {
        setBusy(true);
        return true;
    }
    return false;
}

bool Connection::receivesHalf() {
    i4_lock guard(lock_);
    return incoming_.headerDone > 0;
}

void Connection::countMoved(Relaxed<u32>& counter, u32 bytes) {
    counter.add(bytes);
    moved_ = moved_ || bytes > 0;
}

void Connection::checkStall(u32 now) {
    const u32 limit = stallLimit();
    if (limit == 0 || isBusy()) return;
    const bool waits = hasToSend() || receivesHalf();
    if (!waits || moved_ || lastMoved_ == 0) lastMoved_ = now;
    if (!awaitsFirst() || awaitedSince_ == 0) awaitedSince_ = now;
    moved_ = false;
    if (now - lastMoved_ > limit || now - awaitedSince_ > limit) close();
}

// Turns.

void Connection::doTask(SocketPool* pool) {
    const Ref<Connection> self(this);
    if (closing_) {
        pool->removeConnection(this);
        return;
    }
    i4_lock guard(lock_);
    if (!socket_) return;
    try {
        if (sendTurn() && receiveTurn()) {
            setBusy(false);
            return;
        }
    } catch (const i4_err&) {
        transport().log.printVerbose("Exception in Connection::doTask %d\n", static_cast<i32>(ip.get()));
    }
    pool->removeConnection(this);
}

bool Connection::sendTurn() {
    if (!(lastEvents_ & I4_SELECT_WRITE)) return true;
    Packet* packet = firstToSend();
    if (!packet) return true;
    u32 bytes = 0;
    const Packet::Result result = packet->send(*socket_, budgets(), bytes);
    countMoved(bytesSent, bytes);
    if (result == Packet::more) return true;
    const std::unique_ptr<Packet> finished = takeFirstToSend();
    if (result == Packet::failed) return false;
    finished->sent();
    return true;
}

bool Connection::receiveTurn() {
    if (!(lastEvents_ & I4_SELECT_READ)) return true;
    u32 bytes = 0;
    const Packet::Result result = incoming_.receive(*socket_, budgets(), bytes, bodyLimit());
    countMoved(bytesReceived, bytes);
    if (result == Packet::more) return !socket_->atEnd();
    const bool lives = result == Packet::complete && dispatch();
    incoming_.reset();
    return lives;
}

bool Connection::dispatch() {
    incoming_.stream.setLog(&transport().log);
    const u8 opcode = incoming_.stream.read_8();
    const OpcodeTable* table = opcodes();
    if (table && !table->fits(opcode, Direction::in, incoming_.size - 1)) {
        i4_error()("a message of opcode %d can't be %u bytes long", opcode, incoming_.size);
    }
    return gotFirst ? handleMessage(opcode, incoming_.stream) : firstMessage(opcode, incoming_.stream);
}
