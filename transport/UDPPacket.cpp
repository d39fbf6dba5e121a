#include "transport/UDPPacket.h"

#include <algorithm>
#include <cstring>

#include "i4min/network/protocol.h"
#include "i4min/network/socket.h"
#include "meta/address.h"

UDPPacket::UDPPacket(i4_protocol& network, u32 bodyLength, u32 toIp, u32 toPort)
    : Packet(bodyLength + 1), ip(toIp), port(toPort), network_(network) {
    std::memset(stream.buffer(), 0, size);
    stream.reset(stream.buffer(), size, 0);
    stream.write_8(marker);
}

Packet::Result UDPPacket::send(i4_socket& socket, const Budgets&, u32& out_bytes) {
    const std::unique_ptr<i4_address> address = network_.resolve(ipToString(ip).c_str(), 0, 0);
    if (!address) return failed;
    address->set_port(static_cast<u16>(port));
    out_bytes = static_cast<u32>(std::max(socket.write_to({stream.buffer(), size}, *address), 0));
    return complete;
}

bool readDatagram(i4_socket& socket, i4_ram_file_class& stream, std::unique_ptr<i4_address>& from) {
    from.reset();
    const i32 got = socket.read_from({stream.buffer(), stream.capacity()}, &from);
    if (got <= 0) {
        from.reset();
        return false;
    }
    stream.seek(0);
    stream.setUsed(static_cast<u32>(got));
    return true;
}
