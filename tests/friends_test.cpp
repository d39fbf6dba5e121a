// Friends and their files, and who may open a call.
#include "peer/Call.h"
#include "tests/support/Engine.h"

namespace {

const MD4Hash fileHash = hashOf(0xF0);

// What the user interface hears of friends and calls.
class Listener : public CapturedLog {
  public:
    void friendsChanged() override { told += "friends;"; }
    void friendFiles() override { told += "files;"; }
    void callMessage(Call*, const char* text) override { told += std::string("\"") + text + "\";"; }
    void callOpened(Call* call) override { told += "call " + std::to_string(call->state()) + ";"; }
    std::string heard() { return std::exchange(told, {}); }

  private:
    std::string told;
};

class FriendsTest : public Engine {
  protected:
    static u32 stateOf(u8 last) {
        const i4_guard guard(friendList);
        const UserMeta* user = friendList.findUnsafe(hashOf(last));
        return user ? user->friendState : 99;
    }
    static std::string list(const std::string& name) {
        return opcode(75, le32(1) + bytesOf(fileHash) + le32(0) + le16(0) + le32(1) + "\2" + text16("\1") +
                              text16(name));
    }
    Listener ui;
};

TEST_F(FriendsTest, AreKnownOnce) {
    EXPECT_FALSE(friendList.add(0, 4662));
    EXPECT_EQ(friendList.count(), 0U);
    EXPECT_TRUE(friendList.add(addressOf(1), 4662));
    EXPECT_TRUE(friendList.add(addressOf(1), 4662));
    friendList.addFriend(User(1));
    EXPECT_EQ(friendList.count(), 1U);
    EXPECT_EQ(ui.heard(), "friends;");
    friendList.remove(User(2));
    EXPECT_EQ(ui.heard(), "");
    friendList.remove(User(1));
    EXPECT_EQ(friendList.count(), 0U);
}

TEST_F(FriendsTest, ComeAndGoAndAreRenewed) {
    friendList.add(addressOf(1), 4662);
    friendList.isFriend(hashOf(1));  // makes the index
    ui.heard();
    TestPeer& peer = this->peer(1, "Ada");
    EXPECT_EQ(ui.heard(), "friends;");
    // Found by the hash that came with the connection.
    EXPECT_TRUE(friendList.isFriend(hashOf(1)));
    EXPECT_EQ(stateOf(1), FRIEND_CONNECTED);
    EXPECT_STREQ(friendList.find(hashOf(1))->getName(), "Ada");
    this->peer(2);
    EXPECT_EQ(ui.heard(), "");
    peer.end();
    EXPECT_EQ(stateOf(1), FRIEND_NOT_CONNECTED);
    EXPECT_EQ(ui.heard(), "friends;");
    EXPECT_FALSE(friendList.isFriend(MD4Hash()));
}

TEST_F(FriendsTest, TellTheirFilesWhenAsked) {
    friendList.addFriend(User(1));
    TestPeer& peer = this->peer(1, "Ada");
    // Nobody asked.
    ui.heard();
    ASSERT_TRUE(peer.hear(list("a.txt")));
    EXPECT_EQ(ui.heard(), "");
    EXPECT_EQ(friendList.getFiles().count(), 0U);

    ui.take();
    friendList.askFiles(User(1));
    EXPECT_EQ(ui.take(), "Asking Ada for file list.\n");
    EXPECT_EQ(peer.sentOne(), opcode(74));
    ASSERT_TRUE(this->peer(2).hear(list("b.txt")));
    EXPECT_EQ(friendList.getFiles().count(), 0U);
    ASSERT_TRUE(peer.hear(list("a.txt")));
    EXPECT_EQ(ui.heard(), "files;");
    ASSERT_EQ(friendList.getFiles().count(), 1U);
    EXPECT_STREQ(friendList.getFiles().get(0)->getName(), "a.txt");
    // Once.
    ASSERT_TRUE(peer.hear(list("c.txt")));
    EXPECT_STREQ(friendList.getFiles().get(0)->getName(), "a.txt");
    // A list that can't be read ends the connection; the files stay, and the next try counts.
    friendList.askFiles(User(1));
    EXPECT_FALSE(peer.hear(opcode(75, le32(7) + bytesOf(fileHash))));
    EXPECT_EQ(friendList.getFiles().count(), 1U);
    peer.end();
    TestPeer& back = stranger(1);
    ASSERT_TRUE(back.hear(opcode(1, "\x10" + identity(1, "Ada"))));
    EXPECT_EQ(back.sent().back(), opcode(74));
    friendList.getFiles().deleteAll();
}

TEST_F(FriendsTest, AreReachedOrNot) {
    friendList.addFriend(User(1));
    friendList.askFiles(User(1));
    EXPECT_EQ(ui.take(), "Waiting for connection.\n");
    EXPECT_EQ(stateOf(1), FRIEND_WAITING);
    friendList.askFiles(UserMeta());
    EXPECT_EQ(ui.take(), "Need to look for user. Not yet implemented.\n");
    preferences.setClientId(5);
    UserMeta low;
    low.id = 77;
    low.hash = hashOf(3);
    friendList.addFriend(low);
    friendList.askFiles(low);
    EXPECT_EQ(ui.take(), "Can't connect to User.\n");
    EXPECT_EQ(stateOf(3), FRIEND_UNREACHABLE);
}

TEST_F(FriendsTest, WhoMayOpenACall) {
    // Calls stay for the life of the process, so that each case has users of its own.
    u8 next = 10;
    for (const int allowed : {0, 1, 2}) {
        preferences.pmAllow = allowed;
        TestPeer& unknown = peer(next++);
        TestPeer& byFriend = peer(next);
        friendList.addFriend(User(next++));
        TestPeer& called = peer(next);
        callList.open(User(next++));
        const struct {
            TestPeer& peer;
            bool heard;
        } rows[] = {{unknown, allowed == 0}, {byFriend, allowed != 1}, {called, true}};
        for (const auto& row : rows) {
            ui.heard();
            ASSERT_TRUE(row.peer.hear(opcode(78, text16("hello"))));
            EXPECT_EQ(ui.heard(), row.heard ? "\"hello\";" : "") << allowed;
            EXPECT_EQ(row.peer.sentOne(), row.heard ? "" : opcode(83)) << allowed;
        }
    }
    // Before the hello nobody is known, whoever has friends without a hash.
    friendList.add(addressOf(50), 4662);
    TestPeer& silent = stranger(next);
    ASSERT_TRUE(silent.hear(opcode(78, text16("hello"))));
    EXPECT_EQ(silent.sentOne(), opcode(83));
}

TEST_F(FriendsTest, ACallConnectsEndsAndIsRefused) {
    TestPeer& peer = this->peer(30, "Ada");
    Call* call = callList.open(User(30));
    EXPECT_EQ(callList.open(User(30)), call);
    EXPECT_EQ(call->state(), CALL_CONNECTED);
    EXPECT_TRUE(call->send("hi"));
    EXPECT_EQ(peer.sentOne(), opcode(78, text16("hi")));
    ui.heard();
    peer.end();
    EXPECT_EQ(ui.heard(), "\"Disconnected.\";call 3;");
    EXPECT_FALSE(call->send("hi"));
    // An ended call stays so.
    this->peer(30, "Ada");
    EXPECT_EQ(callList.open(User(30))->state(), CALL_ENDED);

    Call* outgoing = callList.open(User(31));
    EXPECT_EQ(outgoing->state(), CALL_CONNECTING);
    EXPECT_FALSE(outgoing->send("hi"));
    // Their hello to us isn't the answer to ours.
    this->peer(31);
    EXPECT_EQ(outgoing->state(), CALL_CONNECTING);
    ui.heard();
    TestPeer& answering = stranger(31);
    ASSERT_TRUE(answering.hear(opcode(76, identity(31, "Bob"))));
    EXPECT_EQ(ui.heard(), "call 0;");
    EXPECT_TRUE(outgoing->send(std::string(65'000, 'x').c_str()));
    EXPECT_EQ(answering.sentOne(), opcode(78, text16(std::string(65'000, 'x'))));
    ASSERT_TRUE(answering.hear(opcode(83)));
    EXPECT_EQ(ui.heard(), "\"Is not accepting calls.\";call 3;");
    EXPECT_FALSE(outgoing->send("hi"));

    preferences.setClientId(5);
    UserMeta low;
    low.id = 77;
    low.hash = hashOf(32);
    EXPECT_EQ(callList.open(low)->state(), CALL_ENDED);
}

TEST_F(FriendsTest, AFloodOfStrangersOpensAThousandCallsAtMost) {
    TestPeer& peer = stranger(60);
    u32 refused = 0;
    for (u32 i = 0; i < 1100; ++i) {
        std::string record = identity(60);
        record[0] = static_cast<char>(i);
        record[1] = static_cast<char>(i >> 8);
        ASSERT_TRUE(peer.hear(opcode(1, "\x10" + record)));
        peer.sent();
        ASSERT_TRUE(peer.hear(opcode(78, text16("buy"))));
        refused += peer.sentOne() == opcode(83) ? 1U : 0U;
    }
    EXPECT_GE(refused, 100U);
    EXPECT_LT(refused, 200U);
}

}  // namespace
