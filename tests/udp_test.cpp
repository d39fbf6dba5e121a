// Datagrams over loopback, between an annex and a door.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/CapturedLog.h"
#include "tests/support/Conversation.h"
#include "transport/STSocketPool.h"
#include "transport/UDPAnnex.h"
#include "transport/UDPDoor.h"

namespace {

// Keeps each datagram; one that ends with `bad` is read past its end.
std::string hear(i4_ram_file_class& datagram, Told& told, char bad) {
    std::string text(*datagram.bytesLeft(), '\0');
    datagram.readAll(text.data(), static_cast<u32>(text.size()));
    told.heard(text);
    if (text.back() == bad) datagram.read_8();
    return text;
}

struct Annex : UDPAnnex {
    Annex(SocketPool* pool, Told& annexTold) : UDPAnnex(pool), told(annexTold) {}
    void handleDatagram() override { hear(buffer_, told, 'p'); }
    Told& told;
};

// Sends each datagram back.
struct Door : UDPDoor {
    Door(SocketPool* pool, Told& doorTold) : UDPDoor(pool, 0), told(doorTold) {}
    void handleDatagram() override {
        const std::string text = hear(inBuffer_, told, '!');
        outBuffer_.write(text.data(), static_cast<u32>(text.size()));
        reply(outBuffer_.tell());
    }
    Told& told;
};

class UDPTest : public testing::Test {
  protected:
    UDPTest() {
        log.verbose = 1;
        pool.start();
        EXPECT_TRUE(door->open(500));
        EXPECT_TRUE(annex->open());
    }
    ~UDPTest() override {
        pool.stop();
        pool.deleteConnections();
    }
    // Of a body of that many bytes; what isn't written goes out as zeros.
    void send(const std::string& body, u32 length) {
        auto packet = std::make_unique<UDPPacket>(length, loopbackIp, door->localPort());
        packet->stream.write(body.data(), static_cast<u32>(body.size()));
        annex->send(std::move(packet));
    }

    CapturedLog log;
    Told annexTold;
    Told doorTold;
    STSocketPool pool;
    Ref<Door> door{new Door(&pool, doorTold)};
    Ref<Annex> annex{new Annex(&pool, annexTold)};
};

TEST_F(UDPTest, DatagramsGoOutAndRepliesComeBackWithTheirOwnLength) {
    send("a", 1);
    send(std::string(2000, 'b'), 2000);
    send("c", 3);
    send("cut", 1);
    EXPECT_TRUE(eventually([&] { return annexTold.count() == 4; }));
    EXPECT_THAT(doorTold.all(), testing::ElementsAre("\xE3\x61", "\xE3" + std::string(2000, 'b'),
                                                     std::string("\xE3\x63\0\0", 4), "\xE3\x63"));
    EXPECT_EQ(annexTold.all(), doorTold.all());
    EXPECT_EQ(annex->bytesSent, 2U + 2001 + 4 + 2);
}

TEST_F(UDPTest, WhatCantBeReadCostsThatDatagramOnlyAndALongOneIsCut) {
    const int descriptor = ::socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in address = loopbackAt(door->localPort());
    for (const std::string& bytes :
         {std::string(5000, 'l'), std::string(), std::string("bad!"), std::string("last")}) {
        ::sendto(descriptor, bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr*>(&address),
                 sizeof address);
    }
    EXPECT_TRUE(eventually([&] { return doorTold.count() == 3; }));
    EXPECT_THAT(doorTold.all(), testing::ElementsAre(std::string(3072, 'l'), "bad!", "last"));
    send("p", 1);
    send("after", 5);
    EXPECT_TRUE(eventually([&] { return annexTold.count() == 2; }));
    EXPECT_THAT(annexTold.all(), testing::ElementsAre("\xE3\x70",
                                                      "\xE3"
                                                      "after"));
    EXPECT_EQ(log.take(), "*** Exception in UDPDoor\n*** Exception in UDPAnnex\n");
    ::close(descriptor);
}

}  // namespace
