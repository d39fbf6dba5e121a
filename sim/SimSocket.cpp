#include "sim/SimSocket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "i4min/network/address.h"

namespace {

constexpr std::size_t sendBuffer = 256 * 1024;

std::unique_ptr<i4_address> addressOf(u32 ip, u16 port) {
    auto address = std::make_unique<i4_tcpip_address>();
    address->address.sin_addr.s_addr = ip;
    address->set_port(port);
    return address;
}

}  // namespace

SimSocket::SimSocket(SimMachine& machine, Kind kind, u16 port)
    : machine_(machine), kind_(kind), port_(port) {}

SimSocket::SimSocket(SimMachine& machine, std::shared_ptr<SimStream> stream, int side)
    : machine_(machine),
      kind_(Kind::stream),
      port_(stream->ends[side].port),
      stream_(std::move(stream)),
      side_(side) {
    own().socket = this;
}

SimSocket::~SimSocket() {
    leave();
    close();
    if (kind_ == Kind::door) machine_.doors_.erase(port_);
    if (kind_ == Kind::datagrams && port_ != 0) machine_.datagramPorts_.erase(port_);
    machine_.network_.callers_.erase(call_);
}

void SimSocket::close() {
    if (!stream_ || !own().socket) return;
    SimStreamEnd& end = own();
    end.socket = nullptr;
    end.closed = true;
    // If unread data is lost, the other side gets a reset.
    const bool loses = end.receivedBytes > 0;
    end.received.clear();
    end.receivedBytes = 0;
    machine_.network_.closed(stream_, side_, loses);
}

i32 SimSocket::read(std::span<u8> to) {
    if (cancelled_ || kind_ != Kind::stream || stream_->broken) return -1;
    SimStreamEnd& end = own();
    std::size_t done = 0;
    while (done < to.size() && !end.received.empty()) {
        const std::vector<u8>& piece = end.received.front();
        const std::size_t bytes = std::min(to.size() - done, piece.size() - end.taken);
        std::memcpy(to.data() + done, piece.data() + end.taken, bytes);
        done += bytes;
        end.taken += bytes;
        if (end.taken == piece.size()) {
            end.received.pop_front();
            end.taken = 0;
        }
    }
    end.receivedBytes -= done;
    if (done > 0) machine_.network_.windowOpened(stream_, 1 - side_);
    if (done == 0 && !to.empty() && end.otherEnded) atEnd_ = true;
    return static_cast<i32>(done);
}

i32 SimSocket::write(std::span<const u8> bytes) {
    if (cancelled_ || kind_ != Kind::stream || stream_->broken) return -1;
    SimStreamEnd& end = own();
    bytes = bytes.first(std::min(bytes.size(), sendBuffer - std::min(sendBuffer, end.toSendBytes)));
    if (bytes.empty()) return 0;
    end.toSend.emplace_back(bytes.begin(), bytes.end());
    end.toSendBytes += bytes.size();
    machine_.network_.hasToSend(stream_, side_);
    return static_cast<i32>(bytes.size());
}

bool SimSocket::accept(std::unique_ptr<i4_socket>& out) {
    if (cancelled_ || arrived_.empty()) {
        errno = cancelled_ ? EBADF : EAGAIN;
        return false;
    }
    out = std::move(arrived_.front());
    arrived_.pop_front();
    return true;
}

i32 SimSocket::read_from(std::span<u8> to, std::unique_ptr<i4_address>* out_address) {
    if (cancelled_ || datagrams_.empty()) return -1;
    const Datagram datagram = std::move(datagrams_.front());
    datagrams_.pop_front();
    const std::size_t bytes = std::min(to.size(), datagram.bytes.size());
    std::memcpy(to.data(), datagram.bytes.data(), bytes);
    if (out_address) *out_address = addressOf(datagram.ip, datagram.port);
    return static_cast<i32>(bytes);
}

i32 SimSocket::write_to(std::span<const u8> bytes, const i4_address& address) {
    if (cancelled_) return -1;
    if (port_ == 0) {
        port_ = machine_.freePort();
        machine_.datagramPorts_[port_] = this;
    }
    machine_.network_.sendDatagram(*this, std::string(i4_text(bytes)), ipOfAddress(address),
                                   address.get_port());
    return static_cast<i32>(bytes.size());
}

u32 SimSocket::readiness() const {
    if (cancelled_) return I4_SELECT_READ | I4_SELECT_ERROR;
    switch (kind_) {
        case Kind::connecting:
            return 0;
        case Kind::refused:
            return I4_SELECT_READ | I4_SELECT_WRITE | I4_SELECT_ERROR;
        case Kind::door:
            return arrived_.empty() ? 0U : static_cast<u32>(I4_SELECT_READ);
        case Kind::datagrams:
            return I4_SELECT_WRITE | (datagrams_.empty() ? 0U : static_cast<u32>(I4_SELECT_READ));
        case Kind::stream:
            break;
    }
    if (stream_->broken) return I4_SELECT_READ | I4_SELECT_ERROR;
    const SimStreamEnd& end = own();
    return (end.receivedBytes > 0 || end.otherEnded ? static_cast<u32>(I4_SELECT_READ) : 0U) |
           (end.toSendBytes < sendBuffer ? static_cast<u32>(I4_SELECT_WRITE) : 0U);
}

u32 SimSocket::ready(u32 mask, i32, i4_status_class*) { return readiness() & (mask | I4_SELECT_ERROR); }

void SimSocket::add_to_set(i4_socket_set& set, u32 mask, i4_set_owner* owner) {
    join(static_cast<SimSocketSet&>(set), mask, owner);
}

void SimSocket::remove_from_set(i4_socket_set&) { leave(); }

u32 SimSocket::check_in_set(const i4_socket_set&, u32 mask) { return reported() & mask; }

void SimSocket::change_in_set(i4_socket_set&, u32 mask) { watch(mask); }

bool SimSocket::cancel() {
    if (cancelled_) return false;
    cancelled_ = true;
    close();
    touched();
    return true;
}

std::unique_ptr<i4_address> SimSocket::local_address() { return addressOf(machine_.address(), port_); }

std::unique_ptr<i4_address> SimSocket::remote_address() {
    return stream_ ? addressOf(other().ip, other().port) : nullptr;
}
