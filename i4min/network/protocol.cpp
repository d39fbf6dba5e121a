#include "i4min/network/protocol.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <utility>

#include "i4min/network/proxy.h"

namespace {

constexpr std::size_t longest_name = 255;
constexpr int backlog = 1024;
constexpr i32 handshake_limit = 15000;  // ms

struct FreeAddresses {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

// The IPv4 addresses of a name, null where it has none.
Addresses lookUp(const char* name, int flags) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags;
    addrinfo* list = nullptr;
    return Addresses(::getaddrinfo(name, nullptr, &hints, &list) == 0 ? list : nullptr);
}

sockaddr_in addressOf(const addrinfo& entry) {
    sockaddr_in address{};
    std::memcpy(&address, entry.ai_addr, sizeof address);
    return address;
}

bool hostName(char (&name)[longest_name + 1]) {
    if (::gethostname(name, sizeof name) != 0) return false;
    name[longest_name] = 0;
    return true;
}

std::unique_ptr<i4_address> resolveLocally(const char* full_name) {
    char name[longest_name + 1];
    i4_strncpy(name, orEmpty(full_name), sizeof name);
    if (name[0] == 0) return nullptr;
    sockaddr_in address{};
    address.sin_addr.s_addr = ::inet_addr(name);
    if (address.sin_addr.s_addr == INADDR_NONE) {
        const Addresses found = lookUp(name, 0);
        if (!found) return nullptr;
        address.sin_addr = addressOf(*found).sin_addr;
    }
    return std::make_unique<i4_tcpip_address>(address);
}

bool bindTo(const i4_tcpip_sock& socket, u32 ip, u16 port) {
    const int on = 1;
    if (socket.type() == I4_STREAM &&
        ::setsockopt(socket.descriptor(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) {
        return false;
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = ip;
    address.sin_port = htons(port);
    return ::bind(socket.descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

i4_protocol::i4_protocol(const i4_proxy_settings* settings)
    : proxy_(settings ? std::make_unique<i4_proxy_settings>(*settings) : nullptr) {}

i4_protocol::~i4_protocol() = default;

void i4_protocol::setProxy(const i4_proxy_settings* settings) {
    i4_lock guard(lock_);
    proxy_ = settings ? std::make_unique<i4_proxy_settings>(*settings) : nullptr;
}

std::unique_ptr<i4_socket_set> i4_tcpip_protocol::new_socket_set(u32) {
    return std::make_unique<linux_socket_set>();
}

std::unique_ptr<i4_address> i4_tcpip_protocol::resolve(const char* name, u16, u32) {
    {
        i4_lock guard(lock_);
        if (proxy_ && proxy_->inForce() && proxy_->pType != I4_PROXY_SOCKS4) {
            return std::make_unique<i4_proxy_address>(name, u16{0});
        }
    }
    return resolveLocally(name);
}

std::unique_ptr<i4_socket> i4_tcpip_protocol::connect(const i4_address& address, u32 type, bool blocking) {
    i4_lock guard(lock_);
    if (proxy_ && proxy_->inForce()) {
        return type == I4_STREAM ? throughProxy(address, blocking, false) : nullptr;
    }
    const auto* to = dynamic_cast<const i4_tcpip_address*>(&address);
    // A name that was meant for a proxy has no address to connect to.
    if (!to || !to->name.isNull()) return nullptr;
    auto socket = std::make_unique<i4_tcpip_sock>(type);
    if (socket->error() || !socket->connect(*to, blocking)) return nullptr;
    return socket;
}

std::unique_ptr<i4_socket> i4_tcpip_protocol::throughProxy(const i4_address& target, bool blocking,
                                                           bool listening) {
    if (!proxy_->address) {
        proxy_->address = resolveLocally(proxy_->server.c_str());
        if (!proxy_->address) return nullptr;
        proxy_->address->set_port(static_cast<u16>(proxy_->port));
    }
    auto socket = std::make_unique<i4_tcpip_sock>(I4_STREAM);
    if (socket->error() ||
        !socket->connect(static_cast<const i4_tcpip_address&>(*proxy_->address), blocking)) {
        return nullptr;
    }
    auto tunnel = std::make_unique<i4_proxy_sock>(
        *proxy_, std::move(socket), i4_proxy_sock::first_state(proxy_->pType), listening, target);
    if (blocking && tunnel->ready(I4_SELECT_WRITE, handshake_limit, nullptr) == 0) return nullptr;
    return tunnel;
}

bool i4_tcpip_protocol::get_local_host(i4_host_info& out) {
    char name[longest_name + 1];
    if (!hostName(name)) return false;
    const Addresses found = lookUp(name, AI_CANONNAME);
    if (!found) return false;
    out.name = found->ai_canonname ? found->ai_canonname : name;
    out.aliases.clear();
    if (out.name != name) out.aliases.emplace_back(name);
    out.addresses.clear();
    for (const addrinfo* entry = found.get(); entry; entry = entry->ai_next) {
        out.addresses.push_back(std::make_unique<i4_tcpip_address>(addressOf(*entry)));
    }
    return true;
}

std::unique_ptr<i4_socket> i4_tcpip_protocol::listen(u16 port, i32 timeout_ms, u32 type,
                                                     const i4_address* target) {
    {
        i4_lock guard(lock_);
        if (proxy_ && proxy_->inForce()) return listenThroughProxy(timeout_ms, type, target);
    }
    return listenAt(0, port, type);
}

std::unique_ptr<i4_socket> i4_tcpip_protocol::listenAt(u32 ip, u16 port, u32 type) {
    auto socket = std::make_unique<i4_tcpip_sock>(type);
    if (socket->error()) return nullptr;
    // Datagrams of a burst wait, also while the reader has other work.
    const int room = 1 << 20;
    if (type == I4_DATAGRAM) {
        ::setsockopt(socket->descriptor(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
    }
    if (!bindTo(*socket, ip, port)) return nullptr;
    if (type == I4_STREAM && ::listen(socket->descriptor(), backlog) != 0) return nullptr;
    return socket;
}

std::unique_ptr<i4_socket> i4_tcpip_protocol::listenThroughProxy(i32 timeout_ms, u32 type,
                                                                 const i4_address* target) {
    // An HTTP proxy takes no connections for others, and no proxy here carries datagrams.
    if (!target || type != I4_STREAM || proxy_->pType == I4_PROXY_HTTP) return nullptr;
    auto socket = throughProxy(*target, false, true);
    if (!socket) return nullptr;
    socket->ready(I4_SELECT_READ, timeout_ms, nullptr);
    const bool failed = static_cast<i4_proxy_sock&>(*socket).state() == i4_proxy_sock::failed;
    return failed ? nullptr : std::move(socket);
}

std::unique_ptr<i4_socket> i4_tcpip_protocol::datagrams() {
    auto socket = std::make_unique<i4_tcpip_sock>(I4_DATAGRAM);
    return socket->error() ? nullptr : std::move(socket);
}

bool i4_find_local_ip(sockaddr_in& out) {
    char name[longest_name + 1];
    if (!hostName(name)) return false;
    const Addresses found = lookUp(name, 0);
    if (found) out = addressOf(*found);
    return found != nullptr;
}
