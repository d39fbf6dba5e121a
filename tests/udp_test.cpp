// Datagrams over loopback, between an annex and a door.
#include <gtest/gtest.h>

#include "tests/support/CapturedLog.h"
#include "tests/support/Conversation.h"
#include "transport/STSocketPool.h"
#include "transport/UDPAnnex.h"
#include "transport/UDPDoor.h"

namespace {

// Keeps each datagram; one whose opcode is 'p' is read past its end.
class Annex : public UDPAnnex {
  public:
    Annex(SocketPool* pool, Told& told) : UDPAnnex(pool), told_(told) {}

  protected:
    void handleDatagram() override {
        std::string text(*buffer_.bytesLeft(), '\0');
        buffer_.readAll(text.data(), static_cast<u32>(text.size()));
        told_.heard(text);
        if (text.size() > 1 && text[1] == 'p') buffer_.read_8();
    }

  private:
    Told& told_;
};

// Sends each datagram back, its opcode first raised by one unless it is 'p'.
class Door : public UDPDoor {
  public:
    Door(SocketPool* pool, u32 openPort, Told& told) : UDPDoor(pool, openPort), told_(told) {}

  protected:
    void handleDatagram() override {
        std::string text(*inBuffer_.bytesLeft(), '\0');
        inBuffer_.readAll(text.data(), static_cast<u32>(text.size()));
        told_.heard(text);
        outBuffer_.write(text.data(), static_cast<u32>(text.size()));
        reply(outBuffer_.tell());
        if (text == "raise") inBuffer_.read_8();
    }

  private:
    Told& told_;
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
    void send(const std::string& body, u32 slack = 0) {
        auto packet =
            std::make_unique<UDPPacket>(static_cast<u32>(body.size()) + slack, loopbackIp, door->localPort());
        packet->stream.write(body.data(), static_cast<u32>(body.size()));
        annex->send(std::move(packet));
    }

    CapturedLog log;
    Told annexTold;
    Told doorTold;
    STSocketPool pool;
    Ref<Door> door{new Door(&pool, 0, doorTold)};
    Ref<Annex> annex{new Annex(&pool, annexTold)};
};

TEST_F(UDPTest, DatagramsGoOutAndRepliesComeBackWithTheirOwnLength) {
    send("a");
    send(std::string(2000, 'b'));
    send("c", 2);
    EXPECT_TRUE(eventually([&] { return annexTold.count() == 3; }));
    const std::vector<std::string> expected = {
        "\xE3"
        "a",
        "\xE3" + std::string(2000, 'b'),
        std::string("\xE3"
                    "c\0\0",
                    4)};
    EXPECT_EQ(doorTold.all(), expected);
    EXPECT_EQ(annexTold.all(), expected);
    EXPECT_EQ(annex->bytesSent, 2U + 2001 + 4);
}

TEST_F(UDPTest, ReadingPastTheEndCostsThatDatagramOnly) {
    send(std::string(2000, 'b'));
    send("p");
    send("after");
    EXPECT_TRUE(eventually([&] { return annexTold.count() == 3; }));
    EXPECT_EQ(annexTold.all()[2],
              "\xE3"
              "after");
    EXPECT_EQ(log.take(), "*** Exception in UDPAnnex\n");
}

TEST_F(UDPTest, WritesPastADatagramAreCutAndLongDatagramsToo) {
    UDPPacket packet(1, loopbackIp, 1);
    EXPECT_EQ(packet.stream.write("xyz", 3), 1);
    EXPECT_EQ(packet.size, 2U);

    const int descriptor = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<u16>(door->localPort()));
    address.sin_addr.s_addr = loopbackIp;
    const auto sendRaw = [&](const std::string& bytes) {
        ::sendto(descriptor, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&address),
                 sizeof address);
    };
    sendRaw(std::string(5000, 'l'));
    sendRaw("");
    sendRaw("raise");
    sendRaw("last");
    EXPECT_TRUE(eventually([&] { return doorTold.count() == 3; }));
    EXPECT_EQ(doorTold.all()[0], std::string(3072, 'l'));
    EXPECT_EQ(doorTold.all()[2], "last");
    EXPECT_NE(log.take().find("*** Exception in UDPDoor\n"), std::string::npos);
    ::close(descriptor);
}

}  // namespace
