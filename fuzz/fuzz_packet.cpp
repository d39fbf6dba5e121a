// Receiving packets from a stream in pieces. The first byte sets the length of the pieces, the second the
// budgets.
#include <algorithm>
#include <cstring>
#include <string>

#include "fuzz/fuzz.h"
#include "tests/support/ScriptedSocket.h"
#include "transport/Packet.h"

FUZZ_TARGET(packet) {
    if (size < 2) return;
    constexpr u32 limit = 8 << 20;
    const std::size_t longest = data[0] % 4 == 0 ? size : data[0];
    const Budgets budgets{unlimitedBudget, data[1] % 2 == 0 ? unlimitedBudget : data[1]};
    const std::string bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
    ScriptedSocket socket;
    socket.ends = true;
    for (std::size_t at = 0; at < bytes.size(); at += longest)
        socket.pieces.push_back(bytes.substr(at, longest));

    Packet packet;
    std::size_t done = 0;  // bytes of complete packets
    while (!socket.atEnd()) {
        u32 moved = 0;
        const Packet::Result result = packet.receive(socket, budgets, moved, limit);
        if (result == Packet::failed) break;
        require(packet.stream.capacity() <= std::max(Packet::firstBlock, 4 * packet.bodyDone));
        if (result == Packet::more) continue;
        require(packet.size > 0 && packet.stream.bytesLeft() == packet.size);
        done += Packet::headerSize;
        require(std::memcmp(packet.stream.buffer(), bytes.data() + done, packet.size) == 0);
        done += packet.size;
        packet.reset();
    }
}
