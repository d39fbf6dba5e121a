#include "index/IndexServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

#include "meta/address.h"

namespace {

constexpr int portTries = 200;
constexpr u64 tickPause = 1000;
constexpr u64 sliceTime = 5;  // ms of work between two looks at the sockets
constexpr int datagramsAtOnce = 64;
constexpr int packetsAtOnce = 64;

u64 milliseconds() {
    using namespace std::chrono;
    return static_cast<u64>(
        duration_cast<std::chrono::milliseconds>(steady_clock::now().time_since_epoch()).count());
}

sockaddr_in toSystem(const NetAddress& address) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_addr.s_addr = address.ip;
    result.sin_port = htons(static_cast<u16>(address.port));
    return result;
}

sockaddr* generic(sockaddr_in& address) { return reinterpret_cast<sockaddr*>(&address); }
NetAddress fromSystem(const sockaddr_in& address) {
    return {address.sin_addr.s_addr, ntohs(address.sin_port)};
}

NetAddress ownAddress(int socket) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(socket, generic(address), &length);
    return fromSystem(address);
}

i4_descriptor openSocket(int type) {
    return i4_descriptor(::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

void setOption(int socket, int level, int option, int value) {
    setsockopt(socket, level, option, &value, sizeof value);
}

// A client whose machine has gone is noticed within some minutes.
void keepAlive(int socket) {
    setOption(socket, SOL_SOCKET, SO_KEEPALIVE, 1);
    setOption(socket, IPPROTO_TCP, TCP_KEEPIDLE, 120);
    setOption(socket, IPPROTO_TCP, TCP_KEEPINTVL, 30);
    setOption(socket, IPPROTO_TCP, TCP_KEEPCNT, 4);
    setOption(socket, IPPROTO_TCP, TCP_NODELAY, 1);
}

// What comes behind a log-on waits for the test of the door, and may be as long as ever then.
u32 packetLimit(const IndexSession& session, const IndexLimits& limits) {
    return session.phase == IndexSession::Phase::arrived ? limits.packetBeforeLogon : limits.packet;
}

}  // namespace

IndexServer::IndexServer(IndexIdentity identity, IndexLimits limits, EventLog& log)
    : service_(std::move(identity), limits, *this, log),
      log_(log),
      epoll_(epoll_create1(EPOLL_CLOEXEC)),
      now_(milliseconds()),
      scratch_(64 << 10) {}

IndexServer::~IndexServer() = default;

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
    i4_descriptor door = openSocket(SOCK_STREAM);
    i4_descriptor datagrams = openSocket(SOCK_DGRAM);
    setOption(door.get(), SOL_SOCKET, SO_REUSEADDR, 1);
    sockaddr_in address = toSystem({ip, port});
    if (bind(door.get(), generic(address), sizeof address) != 0) return false;
    const u32 bound = ownAddress(door.get()).port;
    address = toSystem({ip, bound + udpPortOffset});
    if (bound + udpPortOffset > 0xFFFF) {
        errno = EADDRNOTAVAIL;
        return false;
    }
    setOption(datagrams.get(), SOL_SOCKET, SO_RCVBUF, 1 << 20);
    if (bind(datagrams.get(), generic(address), sizeof address) != 0 || ::listen(door.get(), 1024) != 0) {
        return false;
    }
    door_ = std::move(door);
    datagrams_ = std::move(datagrams);
    port_ = bound;
    watch(EPOLL_CTL_ADD, door_.get(), EPOLLIN, Kind::door, 0);
    watch(EPOLL_CTL_ADD, datagrams_.get(), EPOLLIN, Kind::datagrams, 0);
    return true;
}

// --- The loop

void IndexServer::watch(int operation, int descriptor, u32 events, Kind kind, u32 number) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = static_cast<u64>(kind) << 32 | number;
    epoll_ctl(epoll_.get(), operation, descriptor, &event);
}

void IndexServer::run(int stop) {
    watch(EPOLL_CTL_ADD, stop, EPOLLIN, Kind::stop, 0);
    std::array<epoll_event, 256> events;
    while (!stopped_) {
        const int count =
            epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()), waitTime());
        now_ = milliseconds();
        for (int i = 0; i < count; ++i) {
            const u64 token = events[static_cast<std::size_t>(i)].data.u64;
            handle(static_cast<Kind>(token >> 32), static_cast<u32>(token),
                   events[static_cast<std::size_t>(i)].events);
        }
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
    }
    log_.always("Stopped with %u clients and %u files", service_.users(), service_.index().fileCount());
    while (!connections_.empty()) close(connections_.begin()->first);
}

// In milliseconds, -1 for as long as nothing arrives.
int IndexServer::waitTime() {
    if (!waiting_.empty() || service_.hasTouched()) return 0;
    u64 next = service_.nextStep();
    if (!connections_.empty() || acceptAgainAt_ != 0) next = std::min(next, tickAt_);
    if (next == ~u64{0}) return -1;
    return next > now_ ? static_cast<int>(std::min<u64>(next - now_, 1000)) : 0;
}

void IndexServer::handle(Kind kind, u32 number, u32 events) {
    switch (kind) {
        case Kind::door:
            return acceptAll();
        case Kind::datagrams:
            return readDatagrams();
        case Kind::stop:
            stopped_ = true;
            return;
        case Kind::doorTest: {
            const auto test = doorTests_.find(number);
            if (test == doorTests_.end()) return;
            int error = 0;
            socklen_t length = sizeof error;
            getsockopt(test->second.socket.get(), SOL_SOCKET, SO_ERROR, &error, &length);
            return endDoorTest(number, error == 0 && (events & (EPOLLERR | EPOLLHUP)) == 0);
        }
        case Kind::client: {
            const auto found = connections_.find(number);
            if (found == connections_.end()) return;
            Connection& connection = found->second;
            if ((events & (EPOLLERR | EPOLLHUP)) != 0 && (events & EPOLLIN) == 0) return close(number);
            if ((events & EPOLLIN) != 0) return readClient(connection);
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
    for (const ClientNumber number : late) endDoorTest(number, false);
    if (acceptAgainAt_ != 0 && now_ >= acceptAgainAt_) {
        acceptAgainAt_ = 0;
        watch(EPOLL_CTL_MOD, door_.get(), EPOLLIN, Kind::door, 0);
    }
}

// --- Clients

void IndexServer::acceptAll() {
    for (;;) {
        sockaddr_in from{};
        socklen_t length = sizeof from;
        i4_descriptor socket(accept4(door_.get(), generic(from), &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!socket.isOpen()) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                log_.always("Can't take in a client: %s", std::strerror(errno));
                acceptAgainAt_ = now_ + tickPause;
                watch(EPOLL_CTL_MOD, door_.get(), 0, Kind::door, 0);
            }
            return;
        }
        Bytes refusal;
        IndexSession* session = service_.opened(fromSystem(from), ownAddress(socket.get()), now_, refusal);
        if (!session) {
            [[maybe_unused]] const ssize_t sent =
                send(socket.get(), refusal.data(), refusal.size(), MSG_NOSIGNAL);
            continue;
        }
        keepAlive(socket.get());
        Connection& connection = connections_[session->number];
        connection.socket = std::move(socket);
        connection.session = session;
        connection.events = EPOLLIN;
        watch(EPOLL_CTL_ADD, connection.socket.get(), EPOLLIN, Kind::client, session->number);
    }
}

void IndexServer::readClient(Connection& connection) {
    const ssize_t count = recv(connection.socket.get(), scratch_.data(), scratch_.size(), 0);
    if (count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
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
        const ssize_t count = send(connection.socket.get(), session.output.data() + session.sent,
                                   session.output.size() - session.sent, MSG_NOSIGNAL);
        if (count < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
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
    const u32 events = (input ? EPOLLIN : 0u) | (session.hasOutput() ? EPOLLOUT : 0u);
    if (events != connection.events) {
        connection.events = events;
        watch(EPOLL_CTL_MOD, connection.socket.get(), events, Kind::client, number);
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
    doorTests_.erase(number);
    service_.closed(*found->second.session);
    connections_.erase(found);
}

// --- Doors

void IndexServer::testDoor(const IndexSession& session) {
    DoorTest& test = doorTests_[session.number];
    test = {openSocket(SOCK_STREAM), now_ + service_.limits().doorTime};
    sockaddr_in address = toSystem({session.address.ip, session.doorPort});
    const bool refused =
        session.doorPort == 0 ||
        (connect(test.socket.get(), generic(address), sizeof address) != 0 && errno != EINPROGRESS);
    // A refusal that is known at once is told with the next turn's tick.
    if (refused) {
        test.until = 0;
        tickAt_ = 0;
    } else {
        watch(EPOLL_CTL_ADD, test.socket.get(), EPOLLOUT, Kind::doorTest, session.number);
    }
}

void IndexServer::endDoorTest(ClientNumber number, bool reachable) {
    doorTests_.erase(number);
    service_.doorTested(number, reachable);
}

// --- Datagrams

void IndexServer::readDatagrams() {
    for (int i = 0; i < datagramsAtOnce; ++i) {
        sockaddr_in from{};
        socklen_t length = sizeof from;
        const ssize_t count =
            recvfrom(datagrams_.get(), scratch_.data(), scratch_.size(), 0, generic(from), &length);
        if (count < 0) return;
        service_.datagram(fromSystem(from), {scratch_.data(), static_cast<std::size_t>(count)}, now_);
    }
}

void IndexServer::sendDatagram(const NetAddress& to, ByteSpan bytes) {
    sockaddr_in address = toSystem(to);
    sendto(datagrams_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL, generic(address), sizeof address);
}
