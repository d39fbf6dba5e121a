// Friends and their files, and who may open a call.
#include "peer/Call.h"
#include "tests/support/Engine.h"

namespace {

const std::string chat = opcode(78, text16("hello"));
const std::string refusal = opcode(83);

// What the user interface hears of friends and calls.
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

// Whom nobody reaches while we have a low ID too.
class LowUser : public UserMeta {
  public:
    explicit LowUser(u8 fill) {
        preferences.setClientId(5);
        id = 77;
        hash = hashOf(fill);
    }
};

class FriendsTest : public Engine {
  protected:
    ~FriendsTest() override { friendList.getFiles().deleteAll(); }

    // The friends and how they stand: "1:2 2:0".
    static std::string drawn() {
        const i4_guard guard(friendList);
        std::string text;
        for (FriendList::Cursor c; const UserMeta* user = friendList.next(c);) {
            text += (text.empty() ? "" : " ") + std::to_string(user->hash.bytes[0]) + ":" +
                    std::to_string(user->friendState);
        }
        return text;
    }
    static std::string files(const std::string& name) {
        return opcode(75, le32(1) + namedRecord(hashOf(0xF0), 0, 0, name));
    }
    static std::string shownFile() {
        const FileMeta* file = friendList.getFiles().get(0);
        return file ? file->getName() : "";
    }
    Listener ui;
};

TEST_F(FriendsTest, AreKnownOnceComeAndGoAndAreRenewed) {
    EXPECT_FALSE(friendList.add(0, 4662));
    EXPECT_EQ(ui.heard(), "");
    EXPECT_TRUE(friendList.add(addressOf(1), 4662));
    EXPECT_TRUE(friendList.add(addressOf(1), 4662));
    friendList.addFriend(User(1));
    EXPECT_EQ(ui.heard(), "friends;");
    EXPECT_EQ(drawn(), "0:0");
    EXPECT_FALSE(friendList.isFriend(hashOf(1)));
    TestPeer& peer = this->peer(1, "Ada");
    this->peer(2);
    EXPECT_EQ(ui.heard(), "friends;");
    // Found by the hash that came with the connection.
    EXPECT_EQ(drawn(), "1:2");
    EXPECT_TRUE(friendList.isFriend(hashOf(1)));
    EXPECT_FALSE(friendList.isFriend(MD4Hash()));
    EXPECT_STREQ(friendList.find(hashOf(1))->getName(), "Ada");
    peer.end();
    EXPECT_EQ(drawn(), "1:0");
    EXPECT_EQ(ui.heard(), "friends;");
    friendList.remove(User(2));
    EXPECT_EQ(ui.heard(), "");
    friendList.remove(User(1));
    EXPECT_EQ(drawn(), "");
}

TEST_F(FriendsTest, TellTheirFilesWhenAsked) {
    friendList.add(addressOf(1), 4662);
    TestPeer& peer = this->peer(1, "Ada");
    TestPeer& other = this->peer(2);
    EXPECT_TRUE(peer.hear(files("a.txt")));
    EXPECT_EQ(shownFile(), "") << "nobody asked";
    ui.take();
    messageQ.post(MESSAGE_ASK_FRIEND_FILES, std::shared_ptr<UserMeta>(new User(1)));
    messageQ.process();
    EXPECT_EQ(ui.take(), "Asking Ada for file list.\n");
    EXPECT_EQ(peer.sentOne(), opcode(74));
    EXPECT_TRUE(other.hear(files("b.txt")));
    EXPECT_EQ(shownFile(), "");
    ui.heard();
    EXPECT_TRUE(peer.hear(files("a.txt")));
    EXPECT_EQ(ui.heard(), "files;");
    EXPECT_TRUE(peer.hear(files("c.txt")));
    EXPECT_EQ(shownFile(), "a.txt") << "once";
    // Asked for nobody's, the next answer is nobody's either.
    UserMeta byAddress;
    byAddress.id = addressOf(1);
    friendList.askFiles(&byAddress);
    messageQ.post(MESSAGE_ASK_FRIEND_FILES);
    messageQ.process();
    EXPECT_TRUE(peer.hear(files("d.txt")));
    EXPECT_EQ(shownFile(), "a.txt");
    // A list that can't be read ends the connection; the files stay, and the friend who comes back is asked
    // again, wherever he comes from. A long one that nobody waits for isn't even read.
    const std::string unreadable = opcode(75, le32(100'000) + std::string(70'000, '\xFF'));
    EXPECT_TRUE(peer.hear(unreadable));
    friendList.askFiles(&byAddress);
    EXPECT_FALSE(peer.hear(unreadable));
    EXPECT_EQ(shownFile(), "a.txt");
    peer.end();
    TestPeer& back = stranger(3);
    EXPECT_TRUE(back.hear(opcode(1, "\x10" + identity(1, "Ada", addressOf(3)))));
    EXPECT_EQ(back.sent().back(), opcode(74));
    EXPECT_TRUE(back.hear(files("e.txt")));
    EXPECT_EQ(shownFile(), "e.txt");
}

TEST_F(FriendsTest, AreReachedOrNot) {
    const User friendly(1);
    friendList.addFriend(friendly);
    friendList.askFiles(&friendly);
    EXPECT_EQ(ui.take(), "Waiting for connection.\n");
    EXPECT_EQ(drawn(), "1:1");
    const UserMeta nowhere{};
    friendList.askFiles(&nowhere);
    EXPECT_EQ(ui.take(), "Need to look for user. Not yet implemented.\n");
    const LowUser low(3);
    friendList.addFriend(low);
    friendList.askFiles(&low);
    EXPECT_EQ(ui.take(), "Can't connect to User.\n");
    EXPECT_EQ(drawn(), "1:1 3:3");
}

TEST_F(FriendsTest, ACallConnectsEndsAndIsRefused) {
    const std::string longest(65'534, 'x');
    TestPeer& peer = this->peer(30, "Ada");
    Call* call = callList.open(User(30));
    EXPECT_EQ(callList.open(User(30)), call);
    EXPECT_EQ(call->state(), CALL_CONNECTED);
    EXPECT_TRUE(call->send(longest.c_str()));
    EXPECT_EQ(peer.sentOne(), opcode(78, text16(longest)));
    EXPECT_FALSE(call->send((longest + "x").c_str()));
    EXPECT_EQ(peer.sentOne(), "");
    ui.heard();
    ASSERT_TRUE(peer.hear(opcode(78, text16(longest))));
    EXPECT_EQ(ui.heard(), longest + ";");
    // Longer than any text, it isn't one.
    EXPECT_FALSE(peer.hear(opcode(78, text16(longest + "x"))));
    peer.end();
    EXPECT_EQ(ui.heard(), "Disconnected.;call 3;");
    EXPECT_FALSE(call->send("hi"));
    this->peer(30, "Ada");
    EXPECT_EQ(callList.open(User(30))->state(), CALL_ENDED) << "an ended call stays so";

    Call* outgoing = callList.open(User(31));
    EXPECT_EQ(outgoing->state(), CALL_CONNECTING);
    EXPECT_FALSE(outgoing->send("hi"));
    this->peer(31);
    EXPECT_EQ(outgoing->state(), CALL_CONNECTING) << "their hello to us isn't the answer to ours";
    ui.heard();
    TestPeer& answering = stranger(31);
    ASSERT_TRUE(answering.hear(opcode(76, identity(31, "Bob"))));
    EXPECT_EQ(ui.heard(), "call 0;");
    EXPECT_TRUE(outgoing->send("hi"));
    EXPECT_EQ(answering.sentOne(), opcode(78, text16("hi")));
    ASSERT_TRUE(answering.hear(refusal));
    EXPECT_EQ(ui.heard(), "Is not accepting calls.;call 3;");
    EXPECT_FALSE(outgoing->send("hi"));
    EXPECT_EQ(callList.open(LowUser(32))->state(), CALL_ENDED);
}

// Calls stay for the life of the process, so that each case has users of its own. A flood comes from one who
// calls himself somebody else each time, by the first two bytes of the hash.
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

        TestPeer& flooding = stranger(60);
        int refused = 0;
        for (u32 i = 0; i < 1100; ++i) {
            ASSERT_TRUE(flooding.hear(opcode(1, "\x10" + le16(i) + identity(60).substr(2))));
            flooding.sent();
            refused += isHeard(flooding) ? 0 : 1;
        }
        EXPECT_GE(refused, allowed == 0 ? 100 : 1100) << "a thousand calls at most";
        EXPECT_LT(refused, allowed == 0 ? 200 : 1101);
    }
    // Before the hello nobody is known, whoever has friends without a hash.
    preferences.pmAllow = 2;
    friendList.add(addressOf(50), 4662);
    TestPeer& silent = stranger(next);
    ASSERT_TRUE(silent.hear(chat));
    EXPECT_EQ(silent.sentOne(), refusal);
}

}  // namespace
