#include "index/IndexServer.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "i4min/network/protocol.h"
#include "meta/address.h"

namespace {

constexpr int portTries = 200;
constexpr u64 tickPause = 1000;
constexpr u64 sliceTime = 5;  // ms of work between two looks at the sockets
constexpr int datagramsAtOnce = 64;
constexpr int packetsAtOnce = 64;

i4_tcpip_address toAddress(const NetAddress& address) {
    i4_tcpip_address result;
    result.address.sin_addr.s_addr = address.ip;
    result.set_port(static_cast<u16>(address.port));
    return result;
}

NetAddress fromAddress(const std::unique_ptr<i4_address>& address) {
    return address ? NetAddress{ipOfAddress(*address), address->get_port()} : NetAddress{};
}

// What comes behind a log-on waits for the test of the door, and may be as long as ever then.
u32 packetLimit(const IndexSession& session, const IndexLimits& limits) {
    return session.phase == IndexSession::Phase::arrived ? limits.packetBeforeLogon : limits.packet;
}

u64 seedFrom(Random& random) {
    std::array<u8, sizeof(u64)> bytes{};
    random.fill(bytes);
    return std::bit_cast<u64>(bytes);
}

}  // namespace

IndexServer::IndexServer(Host& host, IndexIdentity identity, IndexLimits limits, EventLog& log)
    : Thread(host.scheduler),
      host_(host),
      service_(std::move(identity), limits, *this, log, seedFrom(host.random)),
      log_(log),
      set_(host.network.new_socket_set(0)),
      now_(milliseconds()),
      scratch_(64 << 10) {}

IndexServer::~IndexServer() { stop(); }

u64 IndexServer::milliseconds() const { return static_cast<u64>(host_.clock.now().us / 1000) + 1; }

// --- Ports

bool IndexServer::listen(u32 ip, u32 port) {
    for (int tries = port == 0 ? portTries : 1; tries > 0; --tries) {
        if (tryListen(ip, port)) {
            log_.always("Listening on %s:%u, datagrams on port %u", ipToString(ip).c_str(), port_,
                        port_ + udpPortOffset);
            return true;
        }
    }
    log_.always("Can't listen on %s:%u and, for datagrams, %u: %s", ipToString(ip).c_str(), port,
                port + udpPortOffset, std::strerror(errno));
    return false;
}

bool IndexServer::tryListen(u32 ip, u32 port) {
    std::unique_ptr<i4_socket> door = host_.network.listenAt(ip, static_cast<u16>(port), I4_STREAM);
    if (!door) return false;
    const u32 bound = door->local_address()->get_port();
    if (bound + udpPortOffset > 0xFFFF) {
        errno = EADDRNOTAVAIL;
        return false;
    }
    std::unique_ptr<i4_socket> datagrams =
        host_.network.listenAt(ip, static_cast<u16>(bound + udpPortOffset), I4_DATAGRAM);
    if (!datagrams) return false;
    for (i4_socket* socket : {door.get(), datagrams.get()}) socket->set_blocking(false);
    door->add_to_set(*set_, I4_SELECT_READ, &doorWatched_);
    datagrams->add_to_set(*set_, I4_SELECT_READ, &datagramsWatched_);
    door_ = std::move(door);
    datagrams_ = std::move(datagrams);
    port_ = bound;
    return true;
}

// --- The loop

Rest IndexServer::run() {
    now_ = milliseconds();
    handleReady();
    for (const ClientNumber number : std::exchange(waiting_, {})) {
        const auto found = connections_.find(number);
        if (found != connections_.end()) settle(found->second);
    }
    settleTouched();
    const u64 until = now_ + sliceTime;
    while (service_.step(now_) && now_ < until) {
        settleTouched();
        now_ = milliseconds();
    }
    if (now_ >= tickAt_) tick();
    settleTouched();
    return untilDue();
}

// What is done for one may close others.
void IndexServer::handleReady() {
    std::vector<std::pair<Watched, u32>> reports;
    for (const i4_ready& one : set_->readyOnes()) {
        reports.emplace_back(static_cast<const Watched&>(*one.owner), one.mask);
    }
    for (const auto& [watched, mask] : reports) handle(watched, mask);
}

Rest IndexServer::untilDue() const {
    if (!waiting_.empty() || service_.hasTouched()) return Rest::none();
    u64 next = service_.nextStep();
    if (!connections_.empty() || acceptAgainAt_ != 0) next = std::min(next, tickAt_);
    if (next == ~u64{0}) return Rest::untilWoken();
    return Rest::atMost(next > now_ ? static_cast<i64>(next - now_) : 0);
}

void IndexServer::close() {
    log_.always("Stopped with %u clients and %u files", service_.users(), service_.index().fileCount());
    while (!connections_.empty()) close(connections_.begin()->first);
}

void IndexServer::handle(const Watched& watched, u32 mask) {
    switch (watched.kind) {
        case Kind::door:
            return acceptAll();
        case Kind::datagrams:
            return readDatagrams();
        case Kind::doorTest: {
            const auto test = doorTests_.find(watched.number);
            if (test == doorTests_.end()) return;
            const u32 outcome = test->second.socket->proceed(I4_SELECT_WRITE | I4_SELECT_ERROR);
            if (outcome != 0) endDoorTest(watched.number, outcome == I4_SELECT_WRITE);
            return;
        }
        case Kind::client: {
            const auto found = connections_.find(watched.number);
            if (found == connections_.end()) return;
            Connection& connection = found->second;
            const bool reads = (connection.mask & I4_SELECT_READ) != 0;
            if ((mask & I4_SELECT_ERROR) != 0 && !reads) return close(watched.number);
            if ((mask & I4_SELECT_READ) != 0) return readClient(connection);
            return settle(connection);
        }
    }
}

void IndexServer::tick() {
    tickAt_ = now_ + tickPause;
    service_.tick(now_);
    std::vector<ClientNumber> late;
    for (const auto& [number, test] : doorTests_) {
        if (now_ >= test.until) late.push_back(number);
    }
    std::sort(late.begin(), late.end());
    for (const ClientNumber number : late) endDoorTest(number, false);
    if (acceptAgainAt_ != 0 && now_ >= acceptAgainAt_) {
        acceptAgainAt_ = 0;
        door_->change_in_set(*set_, I4_SELECT_READ);
    }
}

// --- Clients

void IndexServer::acceptAll() {
    for (;;) {
        std::unique_ptr<i4_socket> socket;
        if (!door_->accept(socket)) {
            if (errno == ECONNABORTED) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                log_.always("Can't take in a client: %s", std::strerror(errno));
                acceptAgainAt_ = now_ + tickPause;
                door_->change_in_set(*set_, 0);
            }
            return;
        }
        socket->set_blocking(false);
        Bytes refusal;
        IndexSession* session = service_.opened(fromAddress(socket->remote_address()),
                                                fromAddress(socket->local_address()), now_, refusal);
        if (!session) {
            socket->write(refusal);
            continue;
        }
        socket->keepAlive();
        Connection& connection = connections_[session->number];
        connection.socket = std::move(socket);
        connection.session = session;
        connection.mask = I4_SELECT_READ;
        connection.watched.number = session->number;
        connection.socket->add_to_set(*set_, connection.mask, &connection.watched);
    }
}

void IndexServer::readClient(Connection& connection) {
    const i32 count = connection.socket->read(scratch_);
    if (count == 0 && !connection.socket->atEnd()) return;
    if (count <= 0) return close(connection.session->number);
    connection.in.feed({scratch_.data(), static_cast<std::size_t>(count)});
    settle(connection);
}

void IndexServer::handOn(Connection& connection) {
    IndexSession& session = *connection.session;
    const IndexLimits& limits = service_.limits();
    Bytes body;
    const u32 limit = packetLimit(session, limits);
    for (int i = 0; i < packetsAtOnce && session.wantsInput(limits.outputPause); ++i) {
        if (!connection.in.next(body, limit)) break;
        service_.packet(session, std::exchange(body, {}), now_);
    }
}

bool IndexServer::flush(Connection& connection) {
    IndexSession& session = *connection.session;
    while (session.hasOutput()) {
        const i32 count = connection.socket->write(std::span(session.output).subspan(session.sent));
        if (count < 0) return false;
        if (count == 0) return true;
        session.sent += static_cast<std::size_t>(count);
        session.takenAt = now_;
    }
    session.output = Bytes();
    session.sent = 0;
    return true;
}

void IndexServer::settle(Connection& connection) {
    IndexSession& session = *connection.session;
    const ClientNumber number = session.number;
    const IndexLimits& limits = service_.limits();
    bool alive = flush(connection);
    if (alive) {
        handOn(connection);
        alive = session.phase != IndexSession::Phase::closing && flush(connection);
    }
    if (alive && connection.in.isBroken(packetLimit(session, limits))) {
        log_.debug("Client %u is dropped: no packet", number);
        alive = false;
    }
    held_ -= connection.held;
    connection.held = connection.in.size() + (session.job ? session.job->body.size() : 0);
    held_ += connection.held;
    if (alive && held_ > limits.input && connection.held > limits.packetBeforeLogon) {
        log_.info("Client %u is dropped: too much is under way", number);
        alive = false;
    }
    if (!alive) return close(number);

    const bool input = session.wantsInput(limits.outputPause);
    const u32 mask = (input ? I4_SELECT_READ : 0U) | (session.hasOutput() ? I4_SELECT_WRITE : 0U);
    if (mask != connection.mask) {
        connection.mask = mask;
        connection.socket->change_in_set(*set_, mask);
    }
    // Packets that have arrived already are no event: the session's next turn takes them.
    if (input && connection.in.hasPacket()) waiting_.push_back(number);
}

void IndexServer::settleTouched() {
    for (const IndexSession* session : service_.takeTouched()) {
        const auto found = connections_.find(session->number);
        if (found != connections_.end()) settle(found->second);
    }
}

void IndexServer::close(ClientNumber number) {
    const auto found = connections_.find(number);
    held_ -= found->second.held;
    const auto test = doorTests_.find(number);
    if (test != doorTests_.end()) {
        if (test->second.inSet) test->second.socket->remove_from_set(*set_);
        doorTests_.erase(test);
    }
    service_.closed(*found->second.session);
    found->second.socket->remove_from_set(*set_);
    connections_.erase(found);
}

// --- Doors

// A refusal that is known at once is told with the next turn's tick.
void IndexServer::testDoor(const IndexSession& session) {
    DoorTest& test = doorTests_[session.number];
    test.watched.number = session.number;
    test.until = now_ + service_.limits().doorTime;
    if (session.doorPort != 0) {
        test.socket =
            host_.network.connect(toAddress({session.address.ip, session.doorPort}), I4_STREAM, false);
    }
    if (!test.socket) {
        test.until = 0;
        tickAt_ = 0;
        return;
    }
    test.inSet = true;
    test.socket->add_to_set(*set_, I4_SELECT_WRITE, &test.watched);
}

void IndexServer::endDoorTest(ClientNumber number, bool reachable) {
    const auto test = doorTests_.find(number);
    if (test->second.inSet) test->second.socket->remove_from_set(*set_);
    doorTests_.erase(test);
    service_.doorTested(number, reachable);
}

// --- Datagrams

void IndexServer::readDatagrams() {
    for (int i = 0; i < datagramsAtOnce; ++i) {
        std::unique_ptr<i4_address> from;
        const i32 count = datagrams_->read_from(scratch_, &from);
        if (count < 0) return;
        if (count == 0) continue;
        service_.datagram(fromAddress(from), {scratch_.data(), static_cast<std::size_t>(count)}, now_);
    }
}

void IndexServer::sendDatagram(const NetAddress& to, ByteSpan bytes) {
    datagrams_->write_to(bytes, toAddress(to));
}
