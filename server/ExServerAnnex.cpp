// Datagrams, each 0xE3, u8 opcode and the body:
//
//   out  150 ServerPing               u32 time stamp
//        152 ExtendedSearch           tree
//        154 ExtendedGetSources       16 bytes file hash
//        156 ExtendedCallback         u32 own client ID, u16 own door port, u32 client ID of the user to call
//        157 ExtendedAlternateSearch  tree
//   in   151 ServerPingAnswer         u32 time stamp as sent, u32 users, u32 files
//        153 ExtendedResult           one file record
//        155 ExtendedFoundSources     16 bytes file hash, u8 count, count times u32 client ID, u16 port
//        158 ExtendedCallbackFailed   u32 client ID
#include "server/ExServerAnnex.h"

#include <memory>

#include "i4min/network/protocol.h"
#include "meta/FileMeta.h"
#include "protocol/ServerProtocol.h"
#include "server/Search.h"
#include "server/ServerDesk.h"
#include "server/ServerNeeds.h"
#include "transport/Transport.h"
#include "transport/UDPPacket.h"

std::unique_ptr<UDPPacket> ExServerAnnex::makeDatagram(u8 opcode, u32 payload, const ServerAddress& server) {
    auto packet = std::make_unique<UDPPacket>(transport().host.network, payload + 1, server.ip,
                                              server.port + udpPortOffset);
    packet->stream.write_8(opcode);
    return packet;
}

void ExServerAnnex::ping(const ServerAddress& server) {
    auto packet = makeDatagram(OP_PING, 4, server);
    packet->stream.write_32(transport().host.clock.ticks());
    send(std::move(packet));
}

void ExServerAnnex::sendTree(u8 opcode, const Search& search, const ServerAddress& server) {
    auto packet = makeDatagram(opcode, search.byteSize(), server);
    search.toBytes(packet->stream);
    send(std::move(packet));
}

void ExServerAnnex::sendSearch(const Search& search, const ServerAddress& server) {
    sendTree(OP_EXTENDED_SEARCH, search, server);
}

void ExServerAnnex::sendAlternateSearch(const Search& search, const ServerAddress& server) {
    sendTree(OP_EXTENDED_ALTERNATE_SEARCH, search, server);
}

void ExServerAnnex::findSources(const MD4Hash& hash, const ServerAddress& server) {
    auto packet = makeDatagram(OP_EXTENDED_GET_SOURCES, MD4Hash::streamSize, server);
    hash.write(packet->stream);
    send(std::move(packet));
}

void ExServerAnnex::requestCallback(u32 clientId, const ServerAddress& server) {
    auto packet = makeDatagram(OP_EXTENDED_CALLBACK, 10, server);
    packet->stream.write_32(needs_.core.preferences.clientId());
    packet->stream.write_16(static_cast<u16>(needs_.core.preferences.doorPort.get()));
    packet->stream.write_32(clientId);
    send(std::move(packet));
}

void ExServerAnnex::handleDatagram() {
    if (buffer_.read_8() != Packet::marker) return;
    const ServerAddress server{ipOfAddress(*from_), static_cast<u16>(from_->get_port() - udpPortOffset)};
    const u8 opcode = buffer_.read_8();
    switch (opcode) {
        case OP_PING_ANSWER:
            gotPing(server);
            break;
        case OP_EXTENDED_RESULT:
            gotResult();
            break;
        case OP_EXTENDED_FOUND_SOURCES:
            gotSources(server);
            break;
        case OP_EXTENDED_CALLBACK_FAILED:
            needs_.events.callbackFailed(server.ip, buffer_.read_32());
            break;
        default:
            needs_.core.log.printVerbose("ExServer Unknown Msg: %d\n", opcode);
            break;
    }
}

void ExServerAnnex::gotPing(const ServerAddress& server) {
    const u32 stamp = buffer_.read_32();
    const u32 users = buffer_.read_32();
    const u32 files = buffer_.read_32();
    desk_.gotPing(server.ip, server.port, static_cast<i32>(transport().host.clock.ticks() - stamp), users,
                  files);
}

void ExServerAnnex::gotResult() {
    auto file = std::make_unique<FileMeta>();
    if (file->fromNetwork(buffer_)) needs_.events.gotResult(std::move(file));
}

// Only listed servers may report sources: a stranger's false sources would crowd out the real ones.
void ExServerAnnex::gotSources(const ServerAddress& server) {
    if (!desk_.isListed(server)) return;
    desk_.gotSources(buffer_, server);
}
