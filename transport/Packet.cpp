#include "transport/Packet.h"

#include <algorithm>
#include <cstring>

#include "i4min/memory/malloc4.h"
#include "i4min/network/socket.h"
#include "meta/Serializable.h"

namespace {

constexpr u32 growStep = 1024;
// A body's buffer grows to this many times the bytes received, to limit copying.
constexpr u32 growFactor = 4;

u32 withinBudget(u32 bytes, i32 budget) { return budget > 0 ? std::min(bytes, static_cast<u32>(budget)) : 0; }

}  // namespace

Packet::Packet() : stream(nullptr, 0, growStep) {}

Packet::Packet(u32 length) : size(length), stream(i4_malloc(std::max(length, 1U)), length, growStep) {
    setHeader();
}

Packet::~Packet() { i4_free(stream.buffer()); }

void Packet::setHeader() {
    header[0] = marker;
    for (u32 i = 0; i < 4; ++i) header[1 + i] = static_cast<u8>(size >> (8 * i));
}

Packet::Result Packet::send(i4_socket& socket, const Budgets& budgets, u32& out_bytes) {
    if (headerDone < headerSize) {
        const i32 written = socket.write_more(std::span(header).subspan(headerDone));
        if (written < 0) return failed;
        headerDone += static_cast<u32>(written);
        out_bytes += static_cast<u32>(written);
        if (headerDone < headerSize) return more;
    }
    const u32 chunk = withinBudget(size - bodyDone, budgets.sendBudget);
    if (chunk == 0) return more;
    const i32 written = socket.write({stream.buffer() + bodyDone, chunk});
    if (written < 0) return failed;
    out_bytes += static_cast<u32>(written);
    bodyDone += static_cast<u32>(written);
    return bodyDone == size ? complete : more;
}

void Packet::sent() {}

Packet::Result Packet::receive(i4_socket& socket, const Budgets& budgets, u32& out_bytes, u32 limit) {
    if (headerDone < headerSize) {
        const i32 got = socket.read(std::span(header).subspan(headerDone));
        if (got < 0) return failed;
        headerDone += static_cast<u32>(got);
        out_bytes += static_cast<u32>(got);
        if (headerDone < headerSize) return more;
        if (beginBody(limit) == failed) return failed;
    }
    // A full buffer grows and reading goes on at once, so that receiving keeps up with what the other side
    // sends in one turn.
    for (i32 budget = budgets.recvBudget; bodyDone < size;) {
        if (bodyDone == stream.capacity()) growBody();
        const u32 chunk = withinBudget(stream.capacity() - bodyDone, budget);
        if (chunk == 0) break;
        const i32 got = socket.read({stream.buffer() + bodyDone, chunk});
        if (got < 0) return failed;
        out_bytes += static_cast<u32>(got);
        bodyDone += static_cast<u32>(got);
        budget -= got;
        if (static_cast<u32>(got) < chunk) break;
    }
    if (bodyDone < size) return more;
    stream.seek(0);
    return complete;
}

Packet::Result Packet::beginBody(u32 limit) {
    size = 0;
    for (u32 i = 0; i < 4; ++i) size |= static_cast<u32>(header[1 + i]) << (8 * i);
    if (header[0] != marker || size == 0 || size > limit) return failed;
    const u32 first = std::min(size, firstBlock);
    stream.reset(i4_malloc(first), first, growStep);
    return more;
}

void Packet::growBody() {
    const u32 larger = static_cast<u32>(std::min<u64>(size, u64{bodyDone} * growFactor));
    stream.reset(i4_realloc(stream.buffer(), larger), larger, growStep);
}

std::unique_ptr<Packet> Packet::clone() const {
    auto copy = std::make_unique<Packet>(size);
    std::memcpy(copy->stream.buffer(), stream.buffer(), size);
    return copy;
}

// Memory takes every byte.
void Packet::put(const Serializable& content) { static_cast<void>(content.toNetwork(stream)); }

void Packet::finish() {
    size = stream.tell();
    setHeader();
}

void Packet::reset() {
    i4_free(stream.buffer());
    stream.reset(nullptr, 0, growStep);
    header = {};
    headerDone = size = bodyDone = 0;
}

std::unique_ptr<Packet> makePacket(u8 opcode, u32 payload) {
    auto packet = std::make_unique<Packet>(payload + 1);
    packet->stream.write_8(opcode);
    return packet;
}

std::unique_ptr<Packet> makePacket(u8 opcode, const Serializable& content) {
    auto packet = makePacket(opcode, content.byteSize());
    packet->put(content);
    packet->finish();
    return packet;
}
