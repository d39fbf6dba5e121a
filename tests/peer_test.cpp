// Every message between clients: the bytes that go out, what comes in, and what strangers make of either.
#include "download/FileSource.h"
#include "tests/support/Engine.h"
#include "tests/support/damage.h"

namespace {

const MD4Hash known = hashOf(0xAA);
const MD4Hash unknown = hashOf(0xBB);

using PeerTest = Engine;

// What stands behind the opcode of Hello's mark, and of HelloAnswer.
std::string selfOnWire() {
    i4_owned_ram_file file;
    preferences.writeSelf(file);
    return std::string(reinterpret_cast<const char*>(file.buffer()), file.size()) + le32(addressOf(200)) +
           le16(4661);
}

TEST_F(PeerTest, RequestsGoOutByteForByte) {
    TestPeer& peer = stranger(1);
    const std::string hash = bytesOf(known);
    const u32 starts[3] = {0, 184'320, 0xFFFFFFF0};
    const u32 ends[3] = {184'320, 368'640, 0xFFFFFFFF};
    peer.requestParts(known, starts, ends);
    EXPECT_EQ(peer.sentOne(), opcode(71, hash + le32(0) + le32(184'320) + le32(0xFFFFFFF0) + le32(184'320) +
                                             le32(368'640) + le32(0xFFFFFFFF)));
    const struct {
        void (Peer::*ask)(const MD4Hash&);
        u8 number;
    } byHash[] = {
        {&Peer::noSuchFile, 72}, {&Peer::stopUpload, 73}, {&Peer::askHashSet, 81}, {&Peer::askFileName, 88}};
    for (const auto& row : byHash) {
        (peer.*row.ask)(known);
        EXPECT_EQ(peer.sentOne(), opcode(row.number, hash));
    }
    const struct {
        void (Peer::*ask)();
        u8 number;
    } bare[] = {{&Peer::askSharedFiles, 74},
                {&Peer::requestSlot, 84},
                {&Peer::grantSlot, 85},
                {&Peer::releaseSlot, 86},
                {&Peer::endSlot, 87}};
    for (const auto& row : bare) {
        (peer.*row.ask)();
        EXPECT_EQ(peer.sentOne(), opcode(row.number));
    }
    peer.sendIdentity();
    EXPECT_EQ(peer.sentOne(), opcode(77, le32(addressOf(100)) + le32(addressOf(200))));
    peer.idle = 5000;
    peer.sendMessage("hi");
    EXPECT_EQ(peer.sentOne(), opcode(78, "\2" + std::string(1, '\0') + "hi"));
    EXPECT_EQ(peer.idle, 1U);
    EXPECT_FALSE(peer.askFileStatus(known, PARTSIZE));
    EXPECT_EQ(peer.sent().size(), 0U);
    EXPECT_TRUE(peer.askFileStatus(known, PARTSIZE + 1));
    EXPECT_EQ(peer.sentOne(), opcode(79, hash));
}

TEST_F(PeerTest, TheSideThatOpensSaysHelloAndIsListed) {
    TestPeer& peer = stranger(1);
    peer.connected();
    EXPECT_EQ(peer.sentOne(), opcode(1, "\x10" + selfOnWire()));
    EXPECT_TRUE(peers.contains(&peer));
    EXPECT_TRUE(peer.hear(opcode(76, identity(1, "Ada"))));
    EXPECT_EQ(peer.sent().size(), 0U);
    EXPECT_STREQ(peer.getText().c_str(), "Ada");
    EXPECT_EQ(peer.userHash(), hashOf(1));
    peer.end();
    EXPECT_FALSE(peers.contains(&peer));
}

TEST_F(PeerTest, AHelloIsAnsweredAndTellsWhoIsThere) {
    TestPeer& peer = stranger(1);
    EXPECT_TRUE(peer.awaits());
    EXPECT_TRUE(peer.hear(opcode(1, "\x10" + identity(7, "Bob", addressOf(9)))));
    EXPECT_FALSE(peer.awaits());
    EXPECT_EQ(peer.sentOne(), opcode(76, selfOnWire()));
    EXPECT_TRUE(peers.contains(&peer));
    EXPECT_EQ(peer.ip, addressOf(9));
    EXPECT_TRUE(peer.sameUser(User(9)));
    // Said twice, it is listed once.
    EXPECT_TRUE(peer.hear(opcode(1, "\x10" + identity(7))));
    EXPECT_EQ(peers.count(), 1U);
}

TEST_F(PeerTest, AnIdOfZeroIsTheAddressOfTheSocket) {
    TestPeer& peer = stranger(3);
    const std::string record =
        bytesOf(hashOf(3)) + le32(0) + le16(4662) + le32(0) + le32(addressOf(201)) + le16(4661);
    EXPECT_TRUE(peer.hear(opcode(1, "\x10" + record)));
    UserMeta user;
    peer.copyUser(user);
    EXPECT_EQ(user.id, addressOf(3));
    EXPECT_EQ(peer.ip, addressOf(3));
    EXPECT_EQ(user.serverIp, addressOf(201));
    EXPECT_EQ(user.serverPort, 4661);
    EXPECT_TRUE(peer.hear(opcode(77, le32(77) + le32(addressOf(202)))));
    peer.copyUser(user);
    EXPECT_EQ(user.id, 77U);
    EXPECT_EQ(user.serverIp, addressOf(202));
}

TEST_F(PeerTest, ABadHelloEndsTheConnectionWithoutAnAnswer) {
    const std::string rest = identity(1, "Ada");
    const std::string many = bytesOf(hashOf(1)) + le32(addressOf(1)) + le16(4662) + le32(1);
    for (const std::string& body :
         {opcode(1, "\x11" + rest), opcode(1, "\x10" + rest.substr(0, rest.size() - 1)),
          opcode(1, "\x10" + many + std::string(6, '\0')), opcode(76, rest.substr(0, 30))}) {
        TestPeer& peer = stranger(1);
        EXPECT_FALSE(peer.hear(body));
        EXPECT_EQ(peer.sent().size(), 0U);
        EXPECT_FALSE(peers.contains(&peer));
        peer.end();
    }
}

// A name of 30 KB is dropped, and so are tags without end; what is small stays.
TEST_F(PeerTest, OfAnAbsurdIdentityLittleIsKept) {
    TestPeer& peer = stranger(1);
    std::string record = bytesOf(hashOf(1)) + le32(addressOf(1)) + le16(4662) + le32(2001);
    record += "\2" + text16("\1") + text16(std::string(30'000, 'x'));
    for (u32 i = 0; i < 2000; ++i) record += "\3" + text16("t" + std::to_string(i)) + le32(i);
    EXPECT_TRUE(peer.hear(opcode(1, "\x10" + record + le32(0) + le16(0))));
    UserMeta kept;
    peer.copyUser(kept);
    EXPECT_LE(kept.byteSize(), 4096U);
    EXPECT_EQ(kept.getInt("t7"), 7U);
    EXPECT_EQ(kept.getName(), nullptr);
    // And a record longer than any client's own is none.
    record.append(70'000, 'x');
    EXPECT_FALSE(peer.hear(opcode(76, record)));
}

TEST_F(PeerTest, WhatIsAskedAboutFilesIsAnswered) {
    FileMeta& file = shareFile(known, "a.bin", "0123456789");
    file.partHashes = {hashOf(1), hashOf(2)};
    TestPeer& asking = stranger(1);
    const std::string hash = bytesOf(known);
    ASSERT_TRUE(asking.hear(opcode(79, hash)));
    EXPECT_EQ(asking.sentOne(), opcode(80, hash + le16(0)));
    ASSERT_TRUE(asking.hear(opcode(81, hash)));
    EXPECT_EQ(asking.sentOne(), opcode(82, hash + le16(2) + bytesOf(hashOf(1)) + bytesOf(hashOf(2))));
    ASSERT_TRUE(asking.hear(opcode(88, hash)));
    EXPECT_EQ(asking.sentOne(), opcode(89, hash + text16("a.bin")));
    // Unknown files: no word for the name, NoSuchFile for the rest.
    const std::string other = bytesOf(unknown);
    for (const int number : {79, 81}) {
        ASSERT_TRUE(asking.hear(opcode(static_cast<u32>(number), other)));
        EXPECT_EQ(asking.sentOne(), opcode(72, other));
    }
    ASSERT_TRUE(asking.hear(opcode(88, other)));
    EXPECT_EQ(asking.sent().size(), 0U);
}

TEST_F(PeerTest, TheStatusOfAFileUnderDownloadIsWhatIsDone) {
    const Ref<Download> download = startDownload(known, "film", 20'000'000);
    ASSERT_TRUE(download);
    FileMeta file;
    file.hash = known;
    file.setPath(nullptr);
    clientApp.shared.add(&file);
    TestPeer& asking = stranger(1);
    ASSERT_TRUE(asking.hear(opcode(79, bytesOf(known))));
    EXPECT_EQ(asking.sentOne(), opcode(80, bytesOf(known) + le16(3) + std::string(1, '\0')));
    dlPool.remove(download);
    ASSERT_TRUE(asking.hear(opcode(79, bytesOf(known))));
    EXPECT_EQ(asking.sentOne(), opcode(80, bytesOf(known) + le16(0)));
    // An empty path is a path.
    file.setPath("");
    ASSERT_TRUE(asking.hear(opcode(79, bytesOf(known))));
    EXPECT_EQ(asking.sentOne(), opcode(80, bytesOf(known) + le16(0)));
    clientApp.shared.clear();
}

TEST_F(PeerTest, AnEmptyStatusCountsAsEveryPart) {
    const Ref<Download> download = startDownload(known, "film", 20'000'000);
    ASSERT_TRUE(download);
    TestPeer& source = peer(1);
    download->addSource(User(1));
    download->tick(1);
    // Known by its connection, it is asked at once.
    EXPECT_EQ(source.sent(),
              (std::vector<std::string>{opcode(88, bytesOf(known)), opcode(79, bytesOf(known))}));
    ASSERT_TRUE(source.hear(opcode(80, bytesOf(known) + le16(0))));
    EXPECT_EQ(source.sentOne(), opcode(84));
    const i4_guard guard(download->stateLock());
    LL<FileSource>::Cursor c;
    const FileSource* entry = download->state().getSources()->next(c);
    ASSERT_TRUE(entry && entry->parts());
    EXPECT_EQ(entry->parts()->toText(), "111");
}

TEST_F(PeerTest, TheListOfFilesGoesOutOnceAtATime) {
    shareFile(known, "a.bin", "0123456789");
    TestPeer& asking = peer(1);
    const u32 before = asking.mostQueued();
    for (int i = 0; i < 1000; ++i) ASSERT_TRUE(asking.hear(opcode(74)));
    EXPECT_GT(asking.mostQueued(), before);
    const std::string list = asking.sentOne();
    EXPECT_EQ(asking.mostQueued(), before);
    EXPECT_EQ(list.substr(0, 21), opcode(75, le32(1) + bytesOf(known)));
    ASSERT_TRUE(asking.hear(opcode(74)));
    EXPECT_EQ(asking.sentOne(), list);
}

TEST_F(PeerTest, WhoTakesNoAnswersIsClosed) {
    FileMeta& file = shareFile(known, "a.bin", "0123456789");
    file.partHashes.assign(1000, hashOf(3));
    TestPeer& flooding = peer(1);
    u32 answered = 0;
    while (!flooding.wasAskedToClose() && answered < 1000) {
        ASSERT_TRUE(flooding.hear(opcode(81, bytesOf(known))));
        ++answered;
    }
    EXPECT_GT(answered, 100U);
    EXPECT_LT(answered, 300U);
}

TEST_F(PeerTest, WhatIsShortEndsTheConnectionAndWhatIsUnknownDoesNot) {
    const u8 withBody[] = {1, 70, 71, 72, 73, 75, 76, 77, 78, 79, 80, 81, 82, 88, 89};
    for (const u32 number : withBody) {
        TestPeer& peer = stranger(1);
        EXPECT_FALSE(peer.hear(opcode(static_cast<u32>(number), "x"))) << number;
    }
    EXPECT_NE(log.take().find("Exception in Connection::doTask"), std::string::npos);
    TestPeer& peer = stranger(2);
    for (const int number : {0, 2, 42, 69, 90, 255}) {
        EXPECT_TRUE(peer.hear(opcode(static_cast<u32>(number), "anything")));
        EXPECT_EQ(log.take(), "Unknown msg from Connection: " + std::to_string(number) + "\n");
    }
    for (const int number : {83, 84, 85, 86, 87}) EXPECT_TRUE(peer.hear(opcode(static_cast<u32>(number))));
    log.take();
    EXPECT_TRUE(peer.hear(opcode(5, "anything")));
    EXPECT_EQ(log.take(), "Either your client or one you are connected to is out of date.\n");
    // Messages about files that nobody here fetches are dropped unread.
    for (const int number : {70, 72, 82, 89}) {
        EXPECT_TRUE(peer.hear(opcode(static_cast<u32>(number), bytesOf(unknown) + std::string(8, '\xFF'))))
            << number;
    }
}

TEST_F(PeerTest, ARequestWithoutASlotIsRefusedInSilence) {
    shareFile(known, "a.bin", "0123456789");
    TestPeer& peer = stranger(1);
    log.take();
    EXPECT_TRUE(
        peer.hear(opcode(71, bytesOf(known) + le32(0) + le32(0) + le32(0) + le32(10) + le32(0) + le32(0))));
    EXPECT_EQ(log.take(), "Invalid upload request\n");
    EXPECT_EQ(peer.sent().size(), 0U);
}

TEST_F(PeerTest, AnUnaskedListThatIsLongIsNotEvenRead) {
    TestPeer& peer = this->peer(1);
    const std::string broken = le32(100'000) + std::string(70'000, '\xFF');
    EXPECT_TRUE(peer.hear(opcode(75, broken)));
    friendList.add(addressOf(1), 4662);
    friendList.askFiles(User(1));
    EXPECT_FALSE(peer.hear(opcode(75, broken)));
    EXPECT_FALSE(this->peer(2).hear(opcode(75, le32(1) + std::string(20, '\xFF'))));
}

TEST_F(PeerTest, DataFromSomeoneWhoWasNotAskedIsDropped) {
    const Ref<Download> download = startDownload(unknown, "film", 20'000'000);
    peer(1).hear(opcode(70, bytesOf(unknown) + le32(0) + le32(4) + "data"));
    EXPECT_EQ(download->partial().transferred(), 0U);
    EXPECT_TRUE(download->partial().overlaps(0, 4));
}

// Every message, cut short and damaged, on a connection of its own.
TEST_F(PeerTest, DamageHarmsNobody) {
    shareFile(known, "a.bin", "0123456789");
    const Ref<Download> download = startDownload(unknown, "film", 20'000'000);
    const std::string ranges = le32(0) + le32(5) + le32(0) + le32(5) + le32(9) + le32(0);
    const std::string messages[] = {
        opcode(1, "\x10" + identity(1, "Ada")),
        opcode(76, identity(1, "Ada")),
        opcode(71, bytesOf(known) + ranges),
        opcode(70, bytesOf(unknown) + le32(0) + le32(4) + "data"),
        opcode(75,
               le32(1) + bytesOf(known) + le32(0) + le16(0) + le32(1) + "\2" + text16("\1") + text16("n")),
        opcode(78, text16("hello")),
        opcode(80, bytesOf(unknown) + le16(3) + "\7"),
        opcode(82, bytesOf(unknown) + le16(1) + bytesOf(known)),
        opcode(89, bytesOf(unknown) + text16("film.avi")),
    };
    for (const std::string& message : messages) {
        const std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(message.data()),
                                                  message.size());
        sweepDamage(bytes, [&](std::span<const std::uint8_t> damaged) {
            if (damaged.empty()) return;
            const Ref<TestPeer> peer(new TestPeer(addressOf(1)));
            peer->hear(opcode(84));
            peer->hear(std::string(damaged.begin(), damaged.end()));
            peer->end();
        });
        clientApp.socketPool.deleteConnections();
    }
    EXPECT_EQ(peers.count(), 0U);
}

}  // namespace
