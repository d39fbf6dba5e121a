// Every message between clients: the bytes that go out, what comes in, and what strangers make of either.
#include <functional>

#include "tests/support/Engine.h"
#include "tests/support/damage.h"

namespace {

const MD4Hash known = hashOf(0xAA);
const MD4Hash unknown = hashOf(0xBB);
const std::string knownBytes = bytesOf(known);
const std::string unknownBytes = bytesOf(unknown);

// Who is on the other side.
class Known : public UserMeta {
  public:
    explicit Known(const TestPeer& peer) { peer.copyUser(*this); }
};

class PeerTest : public Engine {
  protected:
    // What stands behind the opcode of Hello's mark, and of HelloAnswer.
    static std::string selfOnWire() {
        i4_owned_ram_file file;
        preferences.writeSelf(file);
        return std::string(reinterpret_cast<const char*>(file.buffer()), file.size()) + le32(addressOf(200)) +
               le16(4661);
    }
};

TEST_F(PeerTest, RequestsGoOutByteForByte) {
    TestPeer& peer = stranger(1);
    const std::string longest(65'534, 'x');
    const std::string ranges =
        le32(0) + le32(184'320) + le32(0xFFFFFFF0) + le32(184'320) + le32(368'640) + le32(0xFFFFFFFF);
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[&] {
             peer.requestParts(known, {0, 184'320, 0xFFFFFFF0}, {184'320, 368'640, 0xFFFFFFFF});
         },
         opcode(71, knownBytes + ranges)},
        {[&] { peer.noSuchFile(known); }, opcode(72, knownBytes)},
        {[&] { peer.stopUpload(known); }, opcode(73, knownBytes)},
        {[&] { peer.askSharedFiles(); }, opcode(74)},
        {[&] { peer.sendIdentity(); }, opcode(77, le32(addressOf(100)) + le32(addressOf(200)))},
        {[&] { peer.sendMessage("hi"); }, opcode(78, text16("hi"))},
        {[&] { peer.sendMessage(longest.c_str()); }, opcode(78, text16(longest))},
        {[&] { EXPECT_FALSE(peer.sendMessage((longest + "x").c_str())); }, ""},
        {[&] { EXPECT_FALSE(peer.askFileStatus(known, PARTSIZE)); }, ""},
        {[&] { EXPECT_TRUE(peer.askFileStatus(known, PARTSIZE + 1)); }, opcode(79, knownBytes)},
        {[&] { peer.askHashSet(known); }, opcode(81, knownBytes)},
        {[&] { peer.requestSlot(); }, opcode(84)},
        {[&] { peer.grantSlot(); }, opcode(85)},
        {[&] { peer.releaseSlot(); }, opcode(86)},
        {[&] { peer.endSlot(); }, opcode(87)},
        {[&] { peer.askFileName(known); }, opcode(88, knownBytes)},
    };
    for (const auto& [ask, body] : rows) {
        ask();
        EXPECT_EQ(peer.sent(), body.empty() ? std::vector<std::string>{} : std::vector{body});
    }
    peer.idle = 5000;
    peer.sendMessage("hi");
    EXPECT_EQ(peer.idle, 1U);
}

TEST_F(PeerTest, BothSidesSayWhoTheyAreAndAreListed) {
    TestPeer& called = stranger(1);
    called.connected();
    EXPECT_EQ(called.sentOne(), opcode(1, "\x10" + selfOnWire()));
    EXPECT_TRUE(peers.contains(&called));
    EXPECT_TRUE(called.hear(opcode(76, identity(1, "Ada"))));
    EXPECT_EQ(called.sent().size(), 0U);
    EXPECT_STREQ(called.getText().c_str(), "Ada");
    called.end();
    EXPECT_FALSE(peers.contains(&called));

    TestPeer& calling = stranger(2);
    EXPECT_TRUE(calling.awaits());
    calling.idle = 5000;
    // Said twice, it is listed once.
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(calling.hear(opcode(1, "\x10" + identity(7, "Bob", addressOf(9)))));
        EXPECT_EQ(calling.sentOne(), opcode(76, selfOnWire()));
    }
    EXPECT_EQ(calling.idle, 1U);
    EXPECT_FALSE(calling.awaits());
    EXPECT_EQ(peers.count(), 1U);
    EXPECT_EQ(calling.ip, addressOf(9));
    EXPECT_TRUE(calling.sameUser(User(9)));

    // An ID of 0 is the address of the socket.
    TestPeer& nameless = stranger(3);
    const std::string server = le32(addressOf(201)) + le16(4661);
    EXPECT_TRUE(
        nameless.hear(opcode(1, "\x10" + bytesOf(hashOf(3)) + le32(0) + le16(4662) + le32(0) + server)));
    EXPECT_EQ(Known(nameless).id, addressOf(3));
    EXPECT_EQ(nameless.ip, addressOf(3));
    EXPECT_EQ(Known(nameless).serverIp, addressOf(201));
    EXPECT_EQ(Known(nameless).serverPort, 4661);
    EXPECT_TRUE(nameless.hear(opcode(77, le32(77) + le32(addressOf(202)))));
    EXPECT_EQ(Known(nameless).id, 77U);
    EXPECT_EQ(Known(nameless).serverIp, addressOf(202));
}

// A bad one ends the connection without an answer; of an absurd one little is kept.
TEST_F(PeerTest, IdentitiesAreNotTakenOnTrust) {
    const std::string good = identity(1, "Ada");
    std::string absurd = bytesOf(hashOf(1)) + le32(addressOf(1)) + le16(4662);
    const std::string onePromised = absurd + le32(1) + std::string(6, '\0');
    absurd += le32(2001) + "\2" + text16("\1") + text16(std::string(30'000, 'x'));
    for (u32 i = 0; i < 2000; ++i) absurd += "\3" + text16("t" + std::to_string(i)) + le32(i);
    for (const std::string& body :
         {opcode(1, "\x11" + good), opcode(1, "\x10" + good.substr(0, good.size() - 1)),
          opcode(1, "\x10" + onePromised), opcode(76, good.substr(0, 30)),
          opcode(76, absurd + std::string(70'000, 'x'))}) {
        TestPeer& peer = stranger(1);
        EXPECT_FALSE(peer.hear(body));
        EXPECT_EQ(peer.sent().size(), 0U);
        EXPECT_FALSE(peers.contains(&peer));
    }
    TestPeer& peer = stranger(2);
    EXPECT_TRUE(peer.hear(opcode(1, "\x10" + absurd + le32(0) + le16(0))));
    EXPECT_LE(Known(peer).byteSize(), 4096U);
    EXPECT_EQ(Known(peer).getInt("t7"), 7U);
    EXPECT_EQ(Known(peer).getName(), nullptr);
}

TEST_F(PeerTest, WhatIsAskedAboutFilesIsAnswered) {
    shareFile(known, "a.bin", "0123456789").partHashes = {hashOf(1), hashOf(2)};
    const MD4Hash partial = hashOf(0xCC);
    const Ref<Download> download = startDownload(partial, "film", 20'000'000);
    FileMeta record;
    record.hash = partial;
    record.setPath(nullptr);
    clientApp.shared.add(&record);
    const std::string partialBytes = bytesOf(partial);
    const std::pair<std::string, std::string> rows[] = {
        {opcode(79, knownBytes), opcode(80, knownBytes + le16(0))},
        {opcode(81, knownBytes), opcode(82, knownBytes + le16(2) + bytesOf(hashOf(1)) + bytesOf(hashOf(2)))},
        {opcode(88, knownBytes), opcode(89, knownBytes + text16("a.bin"))},
        {opcode(79, unknownBytes), opcode(72, unknownBytes)},
        {opcode(81, unknownBytes), opcode(72, unknownBytes)},
        {opcode(88, unknownBytes), ""},
        {opcode(79, partialBytes), opcode(80, partialBytes + le16(3) + std::string(1, '\0'))},
    };
    TestPeer& asking = stranger(1);
    const auto answerTo = [&](const std::string& question) {
        EXPECT_TRUE(asking.hear(question));
        return asking.sentOne();
    };
    for (const auto& [question, answer] : rows) EXPECT_EQ(answerTo(question), answer);
    // An empty path is a path; and without one, but without a download either, nothing is known to be
    // missing.
    record.setPath("");
    EXPECT_EQ(answerTo(opcode(79, partialBytes)), opcode(80, partialBytes + le16(0)));
    record.setPath(nullptr);
    dlPool.remove(download);
    EXPECT_EQ(answerTo(opcode(79, partialBytes)), opcode(80, partialBytes + le16(0)));
    clientApp.shared.clear();
}

// Who asks and takes no answers is closed; a list of our files is sent once at a time.
TEST_F(PeerTest, AnswersThatWaitAreBounded) {
    shareFile(known, "a.bin", "0123456789").partHashes.assign(1000, hashOf(3));
    TestPeer& asking = peer(1);
    const u32 before = asking.mostQueued();
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(asking.hear(opcode(74)));
    EXPECT_GT(asking.mostQueued(), before);
    const std::string list = asking.sentOne();
    EXPECT_EQ(asking.mostQueued(), before);
    EXPECT_EQ(list.substr(0, 21), opcode(75, le32(1) + knownBytes));
    ASSERT_TRUE(asking.hear(opcode(74)));
    EXPECT_EQ(asking.sentOne(), list);

    u32 answered = 0;
    for (; !asking.wasAskedToClose() && answered < 1000; ++answered) {
        ASSERT_TRUE(asking.hear(opcode(81, knownBytes)));
    }
    EXPECT_GT(answered, 100U);
    EXPECT_LT(answered, 300U);
}

TEST_F(PeerTest, WhatIsShortEndsTheConnectionAndWhatIsNoUseIsDropped) {
    for (const u32 number : {1, 70, 71, 72, 73, 75, 76, 77, 78, 79, 80, 81, 82, 88, 89}) {
        EXPECT_FALSE(stranger(1).hear(opcode(number, "x"))) << number;
    }
    EXPECT_NE(log.take().find("Exception in Connection::doTask"), std::string::npos);
    shareFile(known, "a.bin", "0123456789");
    const Ref<Download> download = startDownload(hashOf(0xCC), "film", 20'000'000);
    TestPeer& peer = stranger(2);
    log.take();
    const auto unknownMessage = [](int number) {
        return "Unknown msg from Connection: " + std::to_string(number) + "\n";
    };
    const std::string tail(8, '\xFF');
    const std::pair<std::string, std::string> rows[] = {
        {opcode(0, "anything"), unknownMessage(0)},
        {opcode(2, "anything"), unknownMessage(2)},
        {opcode(69, "anything"), unknownMessage(69)},
        {opcode(90, "anything"), unknownMessage(90)},
        {opcode(255, "anything"), unknownMessage(255)},
        {opcode(5, "anything"), "Either your client or one you are connected to is out of date.\n"},
        {requestFor(known, {{0, 10}}), "Invalid upload request\n"},
        {opcode(83), ""},
        {opcode(86), ""},
        {opcode(87), ""},
        // About files that nobody here fetches.
        {opcode(70, unknownBytes + tail), ""},
        {opcode(72, unknownBytes + tail), ""},
        {opcode(82, unknownBytes + tail), ""},
        {opcode(89, unknownBytes + tail), ""},
        // Data from somebody who wasn't asked.
        {opcode(70, bytesOf(hashOf(0xCC)) + le32(0) + le32(4) + "data"), ""},
    };
    for (const auto& [message, said] : rows) {
        EXPECT_TRUE(peer.hear(message)) << static_cast<int>(static_cast<u8>(message[0]));
        EXPECT_EQ(log.take(), said);
        EXPECT_EQ(peer.sent().size(), 0U);
    }
    EXPECT_TRUE(download->partial().overlaps(0, 4));
}

// Every message, cut short and damaged, on a connection of its own.
TEST_F(PeerTest, DamageHarmsNobody) {
    shareFile(known, "a.bin", "0123456789");
    const Ref<Download> download = startDownload(unknown, "film", 20'000'000);
    const std::string messages[] = {
        opcode(1, "\x10" + identity(1, "Ada")),
        opcode(76, identity(1, "Ada")),
        requestFor(known, {{0, 5}, {5, 9}}),
        opcode(70, unknownBytes + le32(0) + le32(4) + "data"),
        opcode(75, le32(1) + namedRecord(known, 0, 0, "n")),
        opcode(78, text16("hello")),
        opcode(80, unknownBytes + le16(3) + "\7"),
        opcode(82, unknownBytes + le16(1) + knownBytes),
        opcode(89, unknownBytes + text16("film.avi")),
    };
    for (const std::string& message : messages) {
        const std::span bytes(reinterpret_cast<const std::uint8_t*>(message.data()), message.size());
        sweepDamage(bytes, [&](std::span<const std::uint8_t> damaged) {
            if (damaged.empty()) return;
            const Ref<TestPeer> peer(new TestPeer(addressOf(1)));
            peer->hear(opcode(84));
            peer->hear(std::string(viewOf(damaged)));
            peer->end();
        });
        clientApp.socketPool.deleteConnections();
    }
    EXPECT_EQ(peers.count(), 0U);
}

}  // namespace
