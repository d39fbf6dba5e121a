// Every message between clients: the bytes sent and received, and hostile uses of them. Friends and their
// files, and who may open a chat.
#include <functional>

#include "peer/Call.h"
#include "protocol/PeerProtocol.h"
#include "tests/support/EngineTest.h"

namespace {

const MD4Hash known = hashOf(0xAA);
const MD4Hash unknown = hashOf(0xBB);
const std::string knownBytes = bytesOf(known);
const std::string unknownBytes = bytesOf(unknown);

class PeerTest : public EngineTest {
  protected:
    // The part of Hello after its first byte, and of HelloAnswer.
    std::string selfOnWire() {
        i4_owned_ram_file file;
        preferences.writeSelf(file);
        return std::string(reinterpret_cast<const char*>(file.buffer()), file.size()) + le32(addressOf(200)) +
               le16(4661);
    }
};

TEST_F(PeerTest, RequestsGoOutByteForByte) {
    TestPeer& peer = stranger(1);
    const std::string longest(65'534, 'x');
    const std::string starts = le32(0) + le32(184'320) + le32(0xFFFFFFF0);
    const std::string ends = le32(184'320) + le32(368'640) + le32(0xFFFFFFFF);
    const std::pair<std::function<void()>, std::string> rows[] = {
        {[&] {
             peer.requestParts(known, {0, 184'320, 0xFFFFFFF0}, {184'320, 368'640, 0xFFFFFFFF});
         },
         opcode(OP_REQUEST_PARTS, knownBytes + starts + ends)},
        {[&] { peer.noSuchFile(known); }, opcode(OP_NO_SUCH_FILE, knownBytes)},
        {[&] { peer.stopUpload(known); }, opcode(OP_STOP_UPLOAD, knownBytes)},
        {[&] { peer.askSharedFiles(); }, opcode(OP_GET_SHARED_FILES)},
        {[&] { peer.sendIdentity(); }, opcode(OP_NEW_IDENTITY, le32(addressOf(100)) + le32(addressOf(200)))},
        {[&] { peer.sendMessage(longest.c_str()); }, opcode(OP_CHAT_MESSAGE, text16(longest))},
        {[&] { EXPECT_FALSE(peer.askFileStatus(known, PARTSIZE)); }, ""},
        {[&] { EXPECT_TRUE(peer.askFileStatus(known, PARTSIZE + 1)); },
         opcode(OP_GET_FILE_STATUS, knownBytes)},
        {[&] { peer.askHashSet(known); }, opcode(OP_GET_HASH_SET, knownBytes)},
        {[&] { peer.requestSlot(); }, opcode(OP_REQUEST_SLOT)},
        {[&] { peer.grantSlot(); }, opcode(OP_SLOT_GRANTED)},
        {[&] { peer.releaseSlot(); }, opcode(OP_RELEASE_SLOT)},
        {[&] { peer.endSlot(); }, opcode(OP_SLOT_ENDED)},
        {[&] { peer.askFileName(known); }, opcode(OP_GET_FILE_NAME, knownBytes)},
    };
    for (const auto& [ask, body] : rows) {
        peer.aliveAt = 1;
        ask();
        EXPECT_EQ(peer.sentOne(), body);
        EXPECT_EQ(peer.aliveAt != 1, body[0] == OP_CHAT_MESSAGE) << "only a chat is a sign of life";
    }
}

TEST_F(PeerTest, BothSidesSayWhoTheyAreAndAreListed) {
    TestPeer& called = stranger(1);
    called.connected();
    EXPECT_EQ(called.sentOne(), opcode(OP_HELLO, "\x10" + selfOnWire()));
    EXPECT_TRUE(peers.contains(&called));
    EXPECT_TRUE(called.hear(opcode(OP_HELLO_ANSWER, identity(1, "Ada"))));
    EXPECT_EQ(called.sent().size(), 0U);
    EXPECT_STREQ(called.getText().c_str(), "Ada");
    called.end();
    EXPECT_FALSE(peers.contains(&called));

    TestPeer& calling = stranger(2);
    EXPECT_TRUE(calling.awaits());
    // A repeated hello doesn't list it twice.
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(calling.hear(opcode(OP_HELLO, "\x10" + identity(7, "Bob", addressOf(9)))));
        EXPECT_EQ(calling.sentOne(), opcode(OP_HELLO_ANSWER, selfOnWire()));
    }
    EXPECT_FALSE(calling.awaits());
    EXPECT_EQ(peers.count(), 1U);
    EXPECT_FALSE(calling.hear(opcode(OP_HELLO, "\x10" + identity(8, "Bob", addressOf(9)))))
        << "somebody else";
    EXPECT_EQ(calling.ip, addressOf(9));
    EXPECT_TRUE(calling.sameUser(User(9)));

    // An ID of 0 means the address of the socket.
    TestPeer& nameless = stranger(3);
    const std::string user = bytesOf(hashOf(3)) + le32(0) + le16(4662) + le32(0);
    EXPECT_TRUE(nameless.hear(opcode(OP_HELLO, "\x10" + user + le32(addressOf(201)) + le16(4661))));
    EXPECT_EQ(nameless.ip, addressOf(3));
    UserMeta who[2];
    nameless.copyUser(who[0]);
    EXPECT_TRUE(nameless.hear(opcode(OP_NEW_IDENTITY, le32(77) + le32(addressOf(202)))));
    nameless.copyUser(who[1]);
    EXPECT_EQ(who[0].serverPort, 4661);
    EXPECT_EQ((std::vector<u32>{who[0].id, who[0].serverIp, who[1].id, who[1].serverIp}),
              (std::vector<u32>{addressOf(3), addressOf(201), 77, addressOf(202)}));
}

// A peer that we called is known when it answers, one that called us when it says hello.
TEST_F(PeerTest, APeerIsThereOnceItIsKnown) {
    shareFile(known, "a.bin", "0123456789");
    TestPeer& called = stranger(1);
    TestPeer& calling = stranger(2);
    called.connected();
    called.sent();
    const std::string answer = opcode(OP_HELLO_ANSWER, identity(1));
    for (const auto& [peer, last, word] :
         {std::tuple(&called, u8{1}, answer), {&calling, u8{2}, opcode(OP_HELLO, "\x10" + identity(2))}}) {
        const std::string early[] = {opcode(OP_NEW_IDENTITY, le32(addressOf(last)) + le32(0)),
                                     opcode(OP_REQUEST_SLOT), opcode(OP_SLOT_GRANTED),
                                     opcode(OP_GET_FILE_NAME, knownBytes)};
        for (const std::string& message : early) EXPECT_TRUE(peer->hear(message));
        EXPECT_EQ(peer->sentOne()[0], OP_FILE_NAME);
        EXPECT_TRUE(peer->awaits());
        Ref<Peer> found;
        EXPECT_EQ(clientApp.connectToUser(User(last), found), ConnectResult::connecting);
        EXPECT_TRUE(peer->hear(word));
        EXPECT_FALSE(peer->awaits());
        EXPECT_EQ(clientApp.connectToUser(User(last), found), ConnectResult::peerThere);
        EXPECT_EQ(found.get(), peer);
    }
    TestPeer& wrong = stranger(3);
    EXPECT_TRUE(wrong.hear(answer));
    EXPECT_TRUE(wrong.awaits()) << "we didn't call";
}

// A bad one ends the connection without an answer; of an absurd one little is kept.
TEST_F(PeerTest, IdentitiesAreNotTakenOnTrust) {
    const std::string good = identity(1, "Ada");
    std::string absurd = bytesOf(hashOf(1)) + le32(addressOf(1)) + le16(4662);
    const std::string onePromised = absurd + le32(1) + std::string(6, '\0');
    absurd += le32(2001) + "\2" + text16("\1") + text16(std::string(30'000, 'x'));
    for (u32 i = 0; i < 2000; ++i) absurd += "\3" + text16("t" + std::to_string(i)) + le32(i);
    for (const std::string& body :
         {opcode(OP_HELLO, "\x11" + good), opcode(OP_HELLO, "\x10" + good.substr(0, good.size() - 1)),
          opcode(OP_HELLO, "\x10" + onePromised),
          opcode(OP_HELLO_ANSWER, absurd + std::string(70'000, 'x'))}) {
        TestPeer& peer = stranger(1);
        EXPECT_FALSE(peer.hear(body));
        EXPECT_EQ(peer.sent().size(), 0U);
        EXPECT_FALSE(peers.contains(&peer));
    }
    TestPeer& peer = stranger(2);
    EXPECT_TRUE(peer.hear(opcode(OP_HELLO, "\x10" + absurd + le32(0) + le16(0))));
    UserMeta user;
    peer.copyUser(user);
    EXPECT_LE(user.byteSize(), 4096U);
    EXPECT_EQ(user.getInt("t7"), 7U);
    EXPECT_EQ(user.getName(), nullptr);
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
        {opcode(OP_GET_FILE_STATUS, knownBytes), opcode(OP_FILE_STATUS, knownBytes + le16(0))},
        {opcode(OP_GET_HASH_SET, knownBytes),
         opcode(OP_HASH_SET, knownBytes + le16(2) + bytesOf(hashOf(1)) + bytesOf(hashOf(2)))},
        {opcode(OP_GET_FILE_NAME, knownBytes), opcode(OP_FILE_NAME, knownBytes + text16("a.bin"))},
        {opcode(OP_GET_FILE_STATUS, unknownBytes), opcode(OP_NO_SUCH_FILE, unknownBytes)},
        {opcode(OP_GET_HASH_SET, unknownBytes), opcode(OP_NO_SUCH_FILE, unknownBytes)},
        {opcode(OP_GET_FILE_NAME, unknownBytes), ""},
        {opcode(OP_GET_FILE_STATUS, partialBytes),
         opcode(OP_FILE_STATUS, partialBytes + le16(3) + std::string(1, '\0'))},
    };
    TestPeer& asking = stranger(1);
    for (const auto& [question, answer] : rows) {
        EXPECT_TRUE(asking.hear(question));
        EXPECT_EQ(asking.sentOne(), answer);
    }
    // Without a download, too, nothing is known to be missing.
    dlPool.remove(download);
    EXPECT_TRUE(asking.hear(opcode(OP_GET_FILE_STATUS, partialBytes)));
    EXPECT_EQ(asking.sentOne(), opcode(OP_FILE_STATUS, partialBytes + le16(0)));
    clientApp.shared.clear();
}

// A peer that doesn't read its answers is disconnected; a list of our files is sent once at a time.
TEST_F(PeerTest, AnswersThatWaitAreBounded) {
    shareFile(known, "a.bin", "0123456789").partHashes.assign(1000, hashOf(3));
    TestPeer& asking = peer(1);
    const u32 before = asking.mostQueued();
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 1000; ++i) ASSERT_TRUE(asking.hear(opcode(OP_GET_SHARED_FILES)));
        EXPECT_GT(asking.mostQueued(), before);
        EXPECT_EQ(asking.sentOne().substr(0, 21), opcode(OP_SHARED_FILES, le32(1) + knownBytes));
        EXPECT_EQ(asking.mostQueued(), before);
    }
    u32 answered = 0;
    for (; !asking.wasAskedToClose() && answered < 1000; ++answered)
        asking.hear(opcode(OP_GET_HASH_SET, knownBytes));
    EXPECT_GT(answered, 100U);
    EXPECT_LT(answered, 300U);
}

TEST_F(PeerTest, WhatIsShortEndsTheConnectionAndWhatIsNoUseIsDropped) {
    for (const u32 number : {1, 70, 71, 72, 73, 75, 76, 77, 78, 79, 80, 81, 82, 88, 89})
        EXPECT_FALSE(stranger(1).hear(opcode(number, "x"))) << number;
    shareFile(known, "a.bin", "0123456789");
    const Ref<Download> download = startDownload(hashOf(0xCC), "film", 20'000'000);
    TestPeer& peer = stranger(2);
    log.take();
    const std::string tail(8, '\xFF');
    const std::pair<std::string, std::string> rows[] = {
        {opcode(0, "x"), "Unknown msg from Connection: 0\n"},
        {opcode(69, "x"), "Unknown msg from Connection: 69\n"},
        {opcode(90, "x"), "Unknown msg from Connection: 90\n"},
        {opcode(OP_PEER_OUT_OF_DATE, "x"),
         "Either your client or one you are connected to is out of date.\n"},
        {requestFor(known, {{0, 10}}), "Invalid upload request\n"},
        {opcode(OP_CHAT_REFUSED), ""},
        {opcode(OP_RELEASE_SLOT), ""},
        {opcode(OP_SLOT_ENDED), ""},
        // About files that we don't download, and data from a peer that wasn't asked.
        {opcode(OP_FILE_DATA, unknownBytes + tail), ""},
        {opcode(OP_NO_SUCH_FILE, unknownBytes + tail), ""},
        {opcode(OP_HASH_SET, unknownBytes + tail), ""},
        {opcode(OP_FILE_NAME, unknownBytes + tail), ""},
        {opcode(OP_FILE_DATA, bytesOf(hashOf(0xCC)) + le32(0) + le32(4) + "data"), ""},
    };
    for (const auto& [message, said] : rows) {
        EXPECT_TRUE(peer.hear(message)) << said;
        EXPECT_EQ(log.take(), said);
        EXPECT_EQ(peer.sent().size(), 0U);
    }
    EXPECT_TRUE(download->partial().overlaps(0, 4));
}

// --- Friends and chats

const std::string chat = opcode(OP_CHAT_MESSAGE, text16("hello"));
const std::string refusal = opcode(OP_CHAT_REFUSED);

// Records the events of friends and chats.
class Listener : public CapturedLog {
  public:
    void friendsChanged() override { told += "friends;"; }
    void friendFiles() override { told += "files;"; }
    void callMessage(Call*, const char* text) override { told += text + std::string(";"); }
    void callOpened(Call* call) override { told += "call " + std::to_string(call->state()) + ";"; }
    std::string heard() { return std::exchange(told, {}); }

  private:
    std::string told;
};

class FriendsTest : public EngineTest {
  protected:
    FriendsTest() { engine.ui.replace(ui); }
    ~FriendsTest() override {
        engine.ui.replace(log);
        friendList.getFiles().deleteAll();
    }

    // Makes the user unreachable, since our ID is low too.
    void makeLow(UserMeta& user, u8 fill) {
        preferences.setClientId(5);
        user.id = 77;
        user.hash = hashOf(fill);
    }
    // The friends and their states: "1:2 2:0".
    std::string drawn() {
        const i4_guard guard(friendList);
        std::string text;
        for (FriendList::Cursor c; const UserMeta* user = friendList.next(c);) {
            text += (text.empty() ? "" : " ") + std::to_string(user->hash.bytes[0]) + ":" +
                    std::to_string(user->friendState);
        }
        return text;
    }
    std::string files(const std::string& name) {
        return opcode(OP_SHARED_FILES, le32(1) + namedRecord(hashOf(0xF0), 0, 0, name));
    }
    std::string shownFile() {
        const FileMeta* file = friendList.getFiles().get(0);
        return file ? file->getName() : "";
    }
    Listener ui;
};

TEST_F(FriendsTest, AreKnownOnceComeAndGoAndAreRenewed) {
    EXPECT_FALSE(friendList.add(0, 4662));
    EXPECT_EQ(ui.heard(), "");
    for (int twice = 0; twice < 2; ++twice) EXPECT_TRUE(friendList.add(addressOf(1), 4662));
    friendList.addFriend(User(1));
    EXPECT_EQ(ui.heard() + drawn(), "friends;0:0");
    EXPECT_FALSE(friendList.isFriend(hashOf(1)));
    TestPeer& peer = this->peer(1, "Ada");
    this->peer(2);
    // Found by the hash that the connection sent.
    EXPECT_EQ(ui.heard() + drawn(), "friends;1:2");
    EXPECT_TRUE(friendList.isFriend(hashOf(1)));
    EXPECT_FALSE(friendList.isFriend(MD4Hash()));
    peer.end();
    EXPECT_EQ(ui.heard() + drawn(), "friends;1:0");
    friendList.remove(User(2));
    EXPECT_EQ(ui.heard() + drawn(), "1:0");
    friendList.remove(User(1));
    EXPECT_EQ(drawn(), "");
}

TEST_F(FriendsTest, TellTheirFilesWhenAsked) {
    friendList.add(addressOf(1), 4662);
    TestPeer& peer = this->peer(1, "Ada");
    TestPeer& other = this->peer(2);
    UserMeta byAddress;
    byAddress.id = addressOf(1);
    EXPECT_TRUE(peer.hear(files("a.txt")));
    friendList.askFiles(&byAddress);
    EXPECT_EQ(peer.sentOne(), opcode(OP_GET_SHARED_FILES));
    EXPECT_TRUE(other.hear(files("b.txt")));
    EXPECT_EQ(shownFile(), "") << "nobody asked, or not him";
    EXPECT_TRUE(peer.hear(files("c.txt")));
    EXPECT_TRUE(peer.hear(files("d.txt")));
    EXPECT_EQ(shownFile(), "c.txt") << "once";
    // After the request is cancelled, the next answer is ignored.
    friendList.askFiles(&byAddress);
    messageQ.post(MESSAGE_ASK_FRIEND_FILES);
    messageQ.process();
    EXPECT_TRUE(peer.hear(files("d.txt")));
    EXPECT_EQ(shownFile(), "c.txt");
    // An unreadable list ends the connection. The previous files are kept, and the friend is asked again when
    // he returns, from whatever address. A long list that wasn't requested isn't read.
    const std::string unreadable = opcode(OP_SHARED_FILES, le32(100'000) + std::string(70'000, '\xFF'));
    EXPECT_TRUE(peer.hear(unreadable));
    friendList.askFiles(&byAddress);
    EXPECT_FALSE(peer.hear(unreadable));
    EXPECT_EQ(shownFile(), "c.txt");
    peer.end();
    TestPeer& back = stranger(3);
    EXPECT_TRUE(back.hear(opcode(OP_HELLO, "\x10" + identity(1, "Ada", addressOf(3)))));
    EXPECT_EQ(back.sent().back(), opcode(OP_GET_SHARED_FILES));
    EXPECT_TRUE(back.hear(files("e.txt")));
    EXPECT_EQ(shownFile(), "e.txt");
}

TEST_F(FriendsTest, AreReachedOrNot) {
    const User friendly(1);
    const UserMeta nowhere;
    UserMeta low;
    makeLow(low, 3);
    for (const auto& [user, told] :
         {std::pair<const UserMeta*, const char*>{&friendly, "Waiting for connection.\n"},
          {&nowhere, "Need to look for user. Not yet implemented.\n"},
          {&low, "Can't connect to User.\n"}}) {
        if (user != &nowhere) friendList.addFriend(*user);
        friendList.askFiles(user);
        EXPECT_EQ(ui.take(), told);
    }
    EXPECT_EQ(drawn(), "1:1 3:3");
}

TEST_F(FriendsTest, ACallConnectsEndsAndIsRefused) {
    const std::string longest(65'534, 'x');
    TestPeer& peer = this->peer(30, "Ada");
    Call* call = callList.open(User(30));
    EXPECT_EQ(callList.open(User(30)), call);
    EXPECT_EQ(call->state(), CALL_CONNECTED);
    EXPECT_TRUE(call->send(longest.c_str()));
    EXPECT_FALSE(call->send((longest + "x").c_str()));
    EXPECT_EQ(peer.sentOne(), opcode(OP_CHAT_MESSAGE, text16(longest)));
    ui.heard();
    ASSERT_TRUE(peer.hear(opcode(OP_CHAT_MESSAGE, text16(longest))));
    EXPECT_EQ(ui.heard(), longest + ";");
    // A text beyond the longest possible one.
    EXPECT_FALSE(peer.hear(opcode(OP_CHAT_MESSAGE, text16(longest + "x"))));
    peer.end();
    EXPECT_EQ(ui.heard(), "Disconnected.;call 3;");
    EXPECT_FALSE(call->send("hi"));
    this->peer(30, "Ada");
    EXPECT_EQ(callList.open(User(30))->state(), CALL_ENDED) << "an ended call stays so";

    Call* outgoing = callList.open(User(31));
    EXPECT_FALSE(outgoing->send("hi"));
    this->peer(31);
    EXPECT_EQ(outgoing->state(), CALL_CONNECTING) << "their hello to us isn't the answer to ours";
    ui.heard();
    TestPeer& answering = reached(31);
    EXPECT_TRUE(outgoing->send("hi"));
    EXPECT_EQ(answering.sentOne(), opcode(OP_CHAT_MESSAGE, text16("hi")));
    ASSERT_TRUE(answering.hear(refusal));
    EXPECT_EQ(ui.heard(), "call 0;Is not accepting calls.;call 3;");
    EXPECT_FALSE(outgoing->send("hi"));
    UserMeta low;
    makeLow(low, 32);
    EXPECT_EQ(callList.open(low)->state(), CALL_ENDED);
}

// Chats stay until the process ends, so each case has its own users. The flood comes from a peer that claims
// another identity each time, by the first two bytes of the hash.
TEST_F(FriendsTest, WhoMayOpenACall) {
    u8 next = 10;
    for (const int allowed : {1, 2, 0}) {
        preferences.pmAllow = allowed;
        const auto isHeard = [&](TestPeer& peer) {
            ui.heard();
            EXPECT_TRUE(peer.hear(chat));
            const bool heard = ui.heard() == "hello;";
            EXPECT_EQ(peer.sentOne(), heard ? "" : refusal) << allowed;
            return heard;
        };
        TestPeer& byFriend = peer(next);
        friendList.addFriend(User(next++));
        EXPECT_EQ(isHeard(byFriend), allowed != 1) << allowed;
        TestPeer& called = peer(next);
        callList.open(User(next++));
        EXPECT_TRUE(isHeard(called)) << allowed;

        int refused = 0;
        for (u32 i = 0; i < 1100; ++i) {
            TestPeer& flooding = stranger(60);
            ASSERT_TRUE(flooding.hear(opcode(OP_HELLO, "\x10" + le16(i) + identity(60).substr(2))));
            flooding.sent();
            refused += isHeard(flooding) ? 0 : 1;
            flooding.end();
        }
        EXPECT_GE(refused, allowed == 0 ? 100 : 1100) << "a thousand calls at most";
        EXPECT_LT(refused, allowed == 0 ? 200 : 1101);
    }
    // Before the hello a peer is nobody, even if a friend has no hash.
    preferences.pmAllow = 2;
    friendList.add(addressOf(50), 4662);
    TestPeer& silent = stranger(next);
    ASSERT_TRUE(silent.hear(chat));
    EXPECT_EQ(silent.sentOne(), refusal);
}

}  // namespace
