#include "i4min/network/address.h"

#include <netdb.h>

#include <algorithm>
#include <array>
#include <bit>

i4_tcpip_address::i4_tcpip_address() : address{}, name(nullptr) { address.sin_family = AF_INET; }

i4_tcpip_address::i4_tcpip_address(const sockaddr_in& from) : i4_tcpip_address() {
    address.sin_port = from.sin_port;
    address.sin_addr = from.sin_addr;
}

void i4_tcpip_address::print(i4_file* stream) {
    i4_string text;
    addressToString(*this, text);
    stream->write(i4_bytes(text.view()));
}

std::unique_ptr<i4_address> i4_tcpip_address::copy() const {
    return std::make_unique<i4_tcpip_address>(address);
}

void i4_tcpip_address::set_port(u16 port) { address.sin_port = htons(port); }
u16 i4_tcpip_address::get_port() const { return ntohs(address.sin_port); }

bool i4_tcpip_address::equals(const i4_address& other) const {
    return ipOfAddress(*this) == ipOfAddress(other);
}

u32 i4_tcpip_address::write_ip(i4_file* stream) const {
    const auto octets = std::bit_cast<std::array<u8, sizeof address.sin_addr>>(address.sin_addr);
    return static_cast<u32>(std::max(0, stream->write(octets)));
}

bool i4_tcpip_address::get_name(i4_file* stream) const {
    char host[NI_MAXHOST];
    if (::getnameinfo(reinterpret_cast<const sockaddr*>(&address), sizeof address, host, sizeof host, nullptr,
                      0, NI_NAMEREQD) != 0) {
        return false;
    }
    stream->write(i4_bytes(host));
    return true;
}

u32 ipOfAddress(const i4_address& address) {
    std::array<u8, sizeof(u32)> octets{};
    i4_ram_file_class stream(octets.data(), octets.size(), 0);
    address.write_ip(&stream);
    return std::bit_cast<u32>(octets);
}

void addressToString(const i4_address& address, i4_string& out) {
    const auto octets = std::bit_cast<std::array<u8, sizeof(u32)>>(ipOfAddress(address));
    out.format("%d.%d.%d.%d", octets[0], octets[1], octets[2], octets[3]);
}
