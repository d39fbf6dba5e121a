#include "sim/SimNetwork.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "meta/address.h"
#include "sim/SimSocket.h"

namespace {

constexpr std::size_t window = 1024 * 1024;  // unread bytes that a stream may have at the other side
constexpr std::size_t smallestPiece = 1460;
constexpr std::size_t largestPiece = 64 * 1024;
constexpr i64 pieceTime = 8000;         // us that a piece takes at most
constexpr i64 lateness = 200'000;       // us, for a piece that was sent twice
constexpr i64 repeatAfter = 1'000'000;  // us, while the machines can't reach each other

i64 milliseconds(i64 ms) { return ms * 1000; }

std::size_t pieceFor(i64 rate) {
    if (rate == 0) return largestPiece;
    const auto bytes = static_cast<std::size_t>(rate * pieceTime / 1'000'000);
    return std::clamp(bytes, smallestPiece, largestPiece);
}

}  // namespace

i64 SimPipe::pass(i64 at, std::size_t bytes) {
    if (rate_ == 0) return at;
    free_ = std::max(at, free_) + static_cast<i64>(bytes) * 1'000'000 / rate_;
    return free_;
}

// --- Machines

SimMachine::SimMachine(SimNetwork& network, u32 address, const Link& link, SimRouter* router)
    : i4_protocol(nullptr),
      network_(network),
      address_(address),
      link_(link),
      router_(router),
      up_(link.upBytesPerSecond),
      down_(link.downBytesPerSecond) {}

SimMachine::~SimMachine() = default;

std::unique_ptr<i4_socket_set> SimMachine::new_socket_set(u32) { return std::make_unique<SimSocketSet>(); }

std::unique_ptr<i4_address> SimMachine::resolve(const char* name, u16, u32) {
    auto address = std::make_unique<i4_tcpip_address>();
    const auto known = network_.names_.find(name);
    const u32 ip = known == network_.names_.end() ? stringToIp(name) : known->second;
    if (ip == 0) return nullptr;
    address->address.sin_addr.s_addr = ip;
    return address;
}

std::unique_ptr<i4_socket> SimMachine::connect(const i4_address& address, u32 type, bool blocking) {
    if (type != I4_STREAM || blocking) return nullptr;
    auto socket = std::make_unique<SimSocket>(*this, SimSocket::Kind::connecting, freePort());
    network_.call(*socket, ipOfAddress(address), address.get_port());
    return socket;
}

bool SimMachine::get_local_host(i4_host_info&) { return false; }

std::unique_ptr<i4_socket> SimMachine::listen(u16 port, i32, u32 type, const i4_address*) {
    return listenAt(0, port, type);
}

std::unique_ptr<i4_socket> SimMachine::listenAt(u32, u16 port, u32 type) {
    auto& ports = type == I4_STREAM ? doors_ : datagramPorts_;
    if (port == 0) port = freePort();
    if (ports.contains(port)) {
        errno = EADDRINUSE;
        return nullptr;
    }
    const auto kind = type == I4_STREAM ? SimSocket::Kind::door : SimSocket::Kind::datagrams;
    auto socket = std::make_unique<SimSocket>(*this, kind, port);
    ports[port] = socket.get();
    return socket;
}

std::unique_ptr<i4_socket> SimMachine::datagrams() {
    return std::make_unique<SimSocket>(*this, SimSocket::Kind::datagrams, 0);
}

u16 SimMachine::freePort() {
    lastPort_ = lastPort_ == 65535 ? u16{49152} : static_cast<u16>(lastPort_ + 1);
    return lastPort_;
}

// --- The network

SimMachine& SimNetwork::addMachine(u32 address, const Link& link, SimRouter* router) {
    machines_.push_back(std::make_unique<SimMachine>(*this, address, link, router));
    if (!router) byAddress_[address] = machines_.back().get();
    return *machines_.back();
}

SimRouter& SimNetwork::addRouter(u32 address, const Link& link) {
    routers_.push_back(std::make_unique<SimRouter>(address, link));
    return *routers_.back();
}

SimMachine* SimNetwork::find(u32 outerAddress) {
    const auto found = byAddress_.find(outerAddress);
    return found == byAddress_.end() ? nullptr : found->second;
}

bool SimNetwork::areApart(const SimMachine& a, const SimMachine& b) const {
    return a.gone || b.gone || a.island != b.island;
}

i64 SimNetwork::latency(const SimMachine& a, const SimMachine& b) {
    i64 us = milliseconds(a.link().latencyMs + b.link().latencyMs);
    for (const SimMachine* machine : {&a, &b}) {
        const i32 jitter = machine->link().jitterMs;
        if (jitter > 0) us += milliseconds(simulation_.random().below(static_cast<u32>(jitter) + 1));
    }
    return us;
}

// The connect arrives, is answered, and the answer arrives. A firewall answers with silence, a port without
// listener with a refusal.
void SimNetwork::call(SimSocket& caller, u32 address, u16 port) {
    SimMachine& from = caller.machine_;
    const u64 number = caller.call_ = ++calls_;
    callers_[number] = &caller;
    SimMachine* to = find(address);
    if (!to || to == &from) return;
    const i64 way = latency(from, *to);
    simulation_.after(way, [this, number, &from, to, port, way] {
        if (areApart(from, *to) || !to->takesCalls()) return;
        const auto door = to->doors_.find(port);
        std::shared_ptr<SimStream> stream;
        const auto calling = callers_.find(number);
        if (calling == callers_.end()) return;
        if (door != to->doors_.end()) {
            stream = std::make_shared<SimStream>();
            stream->number = ++streamsMade_;
            stream->ends[0].machine = &from;
            stream->ends[0].ip = from.outerAddress();
            stream->ends[0].port = calling->second->port_;
            stream->ends[1].machine = to;
            stream->ends[1].ip = to->outerAddress();
            stream->ends[1].port = port;
            if (streams_.size() == streams_.capacity()) static_cast<void>(streams());
            streams_.push_back(stream);
            door->second->arrived_.push_back(std::make_unique<SimSocket>(*to, stream, 1));
            door->second->touched();
        }
        simulation_.note(0xCA11 + port);
        simulation_.after(way, [this, number, &from, to, stream] { answered(number, from, *to, stream); });
    });
}

void SimNetwork::answered(u64 number, SimMachine& from, SimMachine& to,
                          const std::shared_ptr<SimStream>& stream) {
    const auto calling = callers_.find(number);
    if (areApart(from, to)) return;
    if (calling == callers_.end()) {
        // The caller has given up in the meantime.
        if (stream) closed(stream, 0, true);
        return;
    }
    SimSocket& caller = *calling->second;
    callers_.erase(calling);
    caller.kind_ = stream ? SimSocket::Kind::stream : SimSocket::Kind::refused;
    if (stream) {
        caller.stream_ = stream;
        caller.side_ = 0;
        stream->ends[0].socket = &caller;
    }
    caller.touched();
}

void SimNetwork::sendDatagram(SimSocket& from, std::string bytes, u32 address, u16 port) {
    SimMachine& sender = from.machine_;
    SimMachine* to = find(address);
    sender.asked_.insert({address, port});
    if (!to || areApart(sender, *to)) return;
    const double lost = std::max(sender.link().loss, to->link().loss);
    if (lost > 0 && simulation_.random().below(1'000'000) < lost * 1'000'000) return;
    const u16 fromPort = from.port_;
    simulation_.after(latency(sender, *to), [this, &sender, to, port, fromPort, text = std::move(bytes)] {
        if (areApart(sender, *to)) return;
        const u32 seen = sender.outerAddress();
        if (!to->takesCalls() && !to->asked_.contains({seen, fromPort})) return;
        const auto socket = to->datagramPorts_.find(port);
        if (socket == to->datagramPorts_.end()) return;
        simulation_.note(text.size());
        socket->second->datagrams_.push_back({text, seen, fromPort});
        socket->second->touched();
    });
}

// --- Streams

void SimNetwork::hasToSend(const std::shared_ptr<SimStream>& stream, int side) {
    SimStreamEnd& end = stream->ends[side];
    if (end.queued) return;
    end.queued = true;
    SimPipe& pipe = end.machine->up();
    pipe.waiting.emplace_back(stream, side);
    if (!pipe.busy) serve(pipe);
}

void SimNetwork::windowOpened(const std::shared_ptr<SimStream>& stream, int side) {
    if (stream->ends[side].toSendBytes > 0) hasToSend(stream, side);
}

// Sends a piece of the next stream, as far as the other side has room.
void SimNetwork::serve(SimPipe& pipe) {
    while (!pipe.waiting.empty()) {
        const auto [stream, side] = pipe.waiting.front();
        pipe.waiting.pop_front();
        SimStreamEnd& end = stream->ends[side];
        end.queued = false;
        if (stream->broken) continue;
        const SimStreamEnd& other = stream->ends[1 - side];
        const std::size_t underWay = end.onTheWay + other.receivedBytes;
        const std::size_t room = underWay < window ? window - underWay : 0;
        std::vector<u8> piece = takePiece(end, std::min(room, pieceFor(pipe.rate())));
        if (!piece.empty()) {
            const std::size_t bytes = piece.size();
            end.onTheWay += bytes;
            if (end.toSendBytes > 0) hasToSendLater(pipe, stream, side);
            const i64 leaves = pipe.pass(simulation_.now().us, bytes);
            carry(stream, side, std::move(piece), leaves);
            if (end.socket) end.socket->touched();
            if (leaves > simulation_.now().us) {
                pipe.busy = true;
                simulation_.at({leaves}, [this, &pipe] {
                    pipe.busy = false;
                    serve(pipe);
                });
                return;
            }
        }
        sendEnd(stream, side);
    }
}

void SimNetwork::hasToSendLater(SimPipe& pipe, const std::shared_ptr<SimStream>& stream, int side) {
    stream->ends[side].queued = true;
    pipe.waiting.emplace_back(stream, side);
}

std::vector<u8> SimNetwork::takePiece(SimStreamEnd& end, std::size_t most) {
    std::vector<u8> piece;
    while (!end.toSend.empty() && piece.size() < most) {
        std::vector<u8>& first = end.toSend.front();
        const std::size_t bytes = std::min(most - piece.size(), first.size());
        if (piece.empty() && bytes == first.size()) {
            piece = std::move(first);
        } else {
            piece.insert(piece.end(), first.begin(), first.begin() + static_cast<std::ptrdiff_t>(bytes));
            first.erase(first.begin(), first.begin() + static_cast<std::ptrdiff_t>(bytes));
            if (!first.empty()) break;
        }
        end.toSend.pop_front();
    }
    end.toSendBytes -= piece.size();
    return piece;
}

void SimNetwork::carry(const std::shared_ptr<SimStream>& stream, int side, std::vector<u8> piece,
                       i64 leaves) {
    SimStreamEnd& end = stream->ends[side];
    SimMachine& to = *stream->ends[1 - side].machine;
    i64 arrives = leaves + latency(*end.machine, to);
    const double loss = std::max(end.machine->link().loss, to.link().loss);
    if (loss > 0 && simulation_.random().below(1'000'000) < loss * 1'000'000) arrives += lateness;
    arrives = std::max(to.down().pass(arrives, piece.size()), end.lastArrival);
    end.lastArrival = arrives;
    auto carried = std::make_shared<std::vector<u8>>(std::move(piece));
    simulation_.at({arrives}, [this, stream, side, carried] { deliver(stream, side, carried); });
}

void SimNetwork::deliver(const std::shared_ptr<SimStream>& stream, int side,
                         const std::shared_ptr<std::vector<u8>>& piece) {
    SimStreamEnd& end = stream->ends[side];
    SimStreamEnd& other = stream->ends[1 - side];
    if (end.machine->gone || other.machine->gone) return;
    if (areApart(*end.machine, *other.machine)) {
        end.lastArrival = simulation_.now().us + repeatAfter;
        simulation_.after(repeatAfter, [this, stream, side, piece] { deliver(stream, side, piece); });
        return;
    }
    if (stream->broken) return;
    simulation_.note(stream->number * 2 + static_cast<u64>(side) + piece->size());
    u64 first = 0;
    std::memcpy(&first, piece->data(), std::min(sizeof first, piece->size()));
    simulation_.note(first);
    end.onTheWay -= piece->size();
    if (onCarried)
        onCarried({simulation_.now().us, end.machine->address(), other.machine->address(), piece->size()});
    if (!other.socket) return breakOff(stream);  // nobody can read it
    other.receivedBytes += piece->size();
    other.received.push_back(std::move(*piece));
    other.socket->touched();
    const auto counted = resetAfter_.find(other.machine);
    if (counted == resetAfter_.end()) return;
    const u64 bytes = other.received.back().size();
    counted->second -= std::min(counted->second, bytes);
    if (counted->second == 0) {
        resetAfter_.erase(counted);
        breakOff(stream);
    }
}

void SimNetwork::closed(const std::shared_ptr<SimStream>& stream, int side, bool loses) {
    if (stream->broken) return;
    SimStreamEnd& end = stream->ends[side];
    end.closed = true;
    if (loses) {
        // The other side gets the reset when it arrives.
        SimStreamEnd& other = stream->ends[1 - side];
        end.toSend.clear();
        end.toSendBytes = 0;
        simulation_.after(latency(*end.machine, *other.machine), [this, stream, side] {
            if (!areApart(*stream->ends[side].machine, *stream->ends[1 - side].machine)) breakOff(stream);
        });
        return;
    }
    sendEnd(stream, side);
}

// Sent after the last byte.
void SimNetwork::sendEnd(const std::shared_ptr<SimStream>& stream, int side) {
    SimStreamEnd& end = stream->ends[side];
    if (!end.closed || end.endSent || end.toSendBytes > 0) return;
    end.endSent = true;
    SimMachine& to = *stream->ends[1 - side].machine;
    const i64 arrives = std::max(simulation_.now().us + latency(*end.machine, to), end.lastArrival);
    simulation_.at({arrives}, [this, stream, side] { deliverEnd(stream, side); });
}

void SimNetwork::deliverEnd(const std::shared_ptr<SimStream>& stream, int side) {
    SimStreamEnd& other = stream->ends[1 - side];
    const SimMachine& from = *stream->ends[side].machine;
    if (from.gone || other.machine->gone) return;
    if (areApart(from, *other.machine)) {
        simulation_.after(repeatAfter, [this, stream, side] { deliverEnd(stream, side); });
        return;
    }
    other.otherEnded = true;
    if (other.socket) other.socket->touched();
}

void SimNetwork::breakOff(const std::shared_ptr<SimStream>& stream) {
    if (stream->broken) return;
    stream->broken = true;
    for (SimStreamEnd& end : stream->ends) {
        end.toSend.clear();
        end.received.clear();
        end.toSendBytes = end.receivedBytes = 0;
        if (end.socket) end.socket->touched();
    }
}

// --- Faults

std::vector<std::shared_ptr<SimStream>> SimNetwork::streams() {
    std::erase_if(streams_, [](const std::weak_ptr<SimStream>& stream) { return stream.expired(); });
    std::vector<std::shared_ptr<SimStream>> result;
    for (const std::weak_ptr<SimStream>& stream : streams_) result.push_back(stream.lock());
    return result;
}

void SimNetwork::reset(SimMachine& a, SimMachine& b) {
    for (const auto& stream : streams()) {
        const SimMachine* first = stream->ends[0].machine;
        const SimMachine* second = stream->ends[1].machine;
        if ((first == &a && second == &b) || (first == &b && second == &a)) breakOff(stream);
    }
}

void SimNetwork::resetAll(SimMachine& machine) {
    for (const auto& stream : streams()) {
        if (stream->ends[0].machine == &machine || stream->ends[1].machine == &machine) breakOff(stream);
    }
}

void SimNetwork::resetAfter(SimMachine& machine, u64 bytes) { resetAfter_[&machine] = bytes; }

void SimNetwork::split(const std::vector<SimMachine*>& machines, int island) {
    for (SimMachine* machine : machines) machine->island = island;
}
