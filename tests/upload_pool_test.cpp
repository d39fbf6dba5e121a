// Who may download from this client: the rule, the queue, the slots and their time-outs.
#include "peer/UploadSlot.h"
#include "tests/support/Engine.h"

namespace {

const MD4Hash file = hashOf(0xF0);
const std::string slotGranted = opcode(85);
const std::string slotEnded = opcode(87);

class UploadPoolTest : public Engine {
  protected:
    UploadPoolTest() { shareFile(file, "shared.bin", std::string(100'000, 'x')); }

    // The users who hold a slot, and those who wait, by the first byte of their hash: "1 2 | 3".
    static std::string drawn() {
        const i4_guard guard(uploadPool);
        std::string users;
        for (LL<UploadSlot>::Cursor c; const UploadSlot* slot = uploadPool.getSlots().next(c);) {
            users += std::to_string(slot->getUser().hash.bytes[0]) + " ";
        }
        users += "|";
        for (LL<UserMeta>::Cursor c; const UserMeta* user = uploadPool.getQueue().next(c);) {
            users += " " + std::to_string(user->hash.bytes[0]);
        }
        return users;
    }
    static void ageQueue(u32 ms) {
        const i4_guard guard(uploadPool);
        for (LL<UserMeta>::Cursor c; UserMeta* user = uploadPool.getQueue().next(c);) {
            user->setInt(TAG_QTIME, user->getInt(TAG_QTIME) - ms);
        }
    }
    TestPeer& asking(u8 last) {
        TestPeer& result = peer(last);
        EXPECT_TRUE(result.hear(opcode(84)));
        return result;
    }
    void allAsk(u8 first, u8 last) {
        for (u8 user = first; user <= last; ++user) asking(user);
    }
    static std::vector<std::string> answers(TestPeer& peer, const std::string& message) {
        EXPECT_TRUE(peer.hear(message));
        return peer.sent();
    }
    using Answers = std::vector<std::string>;
};

TEST(SlotRule, FollowsTheLine) {
    // KB/s of the line, and of them in use; slots, slots and uploads; whether another one starts.
    const std::pair<SlotRule, bool> rows[] = {
        {{5, 0, 0, 1}, true},        // two transfers always
        {{5, 0, 0, 2}, true},        // 3 of the 4.5 KB/s are free
        {{5, 0, 1, 2}, false},       // but not twice
        {{5, 1.5F, 0, 2}, false},    // just 3 aren't less than 3
        {{17.9F, 17, 0, 2}, false},  // 17.9 / 6 is 2
        {{18, 18, 0, 2}, true},        {{18, 18, 0, 3}, false},  {{60, 60, 9, 9}, true},
        {{60, 50.9F, 0, 10}, true},    {{60, 51, 0, 10}, false}, {{1000, 1000, 165, 165}, true},
        {{1000, 1000, 0, 166}, false}, {{0, 0, 0, 2}, false},    {{1e30F, 0, 0, 5}, true},
    };
    for (const auto& [rule, starts] : rows)
        EXPECT_EQ(rule.canStart(), starts) << rule.capacity << rule.active;
}

TEST_F(UploadPoolTest, ASlotTurnsIntoATransferAndBackIntoAPlaceInTheQueue) {
    TestPeer& peer = asking(1);
    EXPECT_EQ(peer.sent(), Answers{slotGranted}) << "the line is free";
    EXPECT_EQ(answers(peer, opcode(84)), Answers{}) << "asked again";
    EXPECT_EQ(answers(peer, opcode(76, identity(1, "user1"))), Answers{slotGranted}) << "called again";
    const MD4Hash unknown = hashOf(0xEE);
    EXPECT_EQ(answers(peer, requestFor(unknown, {{0, 10}})), Answers{opcode(72, bytesOf(unknown))});
    EXPECT_EQ(drawn(), "1 |");
    EXPECT_EQ(answers(peer, requestFor(file, {{0, 10}})),
              Answers{opcode(70, bytesOf(file) + le32(0) + le32(10) + std::string(10, 'x'))});
    EXPECT_EQ(drawn(), "|");
    EXPECT_EQ(answers(peer, opcode(84)), Answers{}) << "who transfers gets no slot on top";
    EXPECT_EQ(drawn(), "|");
    log.take();
    EXPECT_EQ(answers(peer, opcode(73, bytesOf(file))), (Answers{slotEnded, slotGranted}));
    EXPECT_EQ(log.take().substr(0, 32), "UploadPool::stopUpload(user1)\nUp");
    EXPECT_EQ(drawn(), "1 |");
    // A file that is gone leaves the slot.
    std::filesystem::remove(directory.file("shared.bin"));
    log.take();
    EXPECT_EQ(answers(peer, requestFor(file, {{0, 10}})), Answers{opcode(72, bytesOf(file))});
    EXPECT_EQ(log.take(), "File not found for upload: " + directory.file("shared.bin") + "\n");
    EXPECT_EQ(drawn(), "1 |");
}

// Two slots are all that a slow line grants.
TEST_F(UploadPoolTest, TheQueueKeepsItsOrderAndRenewsItsTimes) {
    allAsk(1, 5);
    EXPECT_EQ(drawn(), "1 2 | 3 4 5");
    EXPECT_EQ(made[2]->sent(), Answers{});
    ageQueue(2'700'001);
    ASSERT_TRUE(made[3]->hear(opcode(84)));
    EXPECT_EQ(drawn(), "1 2 | 3 4 5");
    // The first one has stopped asking: the next one's turn.
    ASSERT_TRUE(made[0]->hear(opcode(86)));
    EXPECT_EQ(drawn(), "2 4 | 5");
    EXPECT_EQ(made[3]->sent(), Answers{slotGranted});
    // Strangers without a hash are told apart by their address.
    for (u8 last = 31; last <= 32; ++last) {
        const std::string record = std::string(16, '\0') + le32(addressOf(last)) + le16(4662) + le32(0);
        TestPeer& unknown = stranger(last);
        ASSERT_TRUE(unknown.hear(opcode(1, "\x10" + record + le32(0) + le16(0))));
        ASSERT_TRUE(unknown.hear(opcode(84)));
    }
    EXPECT_EQ(drawn(), "2 4 | 5 0 0");
}

TEST_F(UploadPoolTest, FiftyWait) {
    allAsk(1, 53);
    const std::string full = drawn();
    EXPECT_EQ(std::count(full.begin(), full.end(), ' '), 2 + 50);
    EXPECT_EQ(full.substr(full.size() - 3), " 52");
    // Who had an upload comes on top.
    ASSERT_TRUE(made[0]->hear(requestFor(file, {{0, 10}})));
    ASSERT_TRUE(made[0]->hear(opcode(73, bytesOf(file))));
    EXPECT_EQ(drawn().substr(0, 9), "2 3 | 4 5");
    // A renewal is dropped as well: he ages on.
    ageQueue(2'700'001);
    ASSERT_TRUE(made[3]->hear(opcode(84)));
    ASSERT_TRUE(made[1]->hear(opcode(86)));
    EXPECT_EQ(drawn(), "3 |");
}

TEST_F(UploadPoolTest, WhoHasCrossedIntoAnotherPartMakesWay) {
    FileMeta& large = shareFile(hashOf(0xF1), "large.bin", "");
    std::filesystem::resize_file(large.path.c_str(), 2 * PARTSIZE);
    TestPeer& first = asking(1);
    TestPeer& second = asking(2);
    // With nobody waiting, a transfer goes on unchallenged.
    first.sent();
    ASSERT_TRUE(first.hear(requestFor(large.hash, {{PARTSIZE - 10, PARTSIZE}})));
    first.leave();
    ASSERT_TRUE(first.hear(requestFor(large.hash, {{PARTSIZE, PARTSIZE + 100'000}})));
    asking(3);
    ASSERT_TRUE(second.hear(requestFor(file, {{0, 10}})));
    EXPECT_EQ(drawn(), "| 3");
    // Now that somebody waits, it may be ended, and its place counts as free.
    ASSERT_TRUE(first.hear(requestFor(large.hash, {{0, 100'000}})));
    TestPeer& fourth = asking(4);
    asking(5);
    EXPECT_EQ(drawn(), "4 | 3 5");
    first.sent();
    log.take();
    ASSERT_TRUE(fourth.hear(requestFor(file, {{0, 10}})));
    EXPECT_NE(log.take().find("Queueing: user1\n"), std::string::npos);
    EXPECT_EQ(first.sent(), Answers{slotEnded});
    EXPECT_EQ(drawn(), "| 3 5 1");
}

TEST_F(UploadPoolTest, ATransferWithNothingToSendWaitsASecondForTheNextRequest) {
    TestPeer& peer = asking(1);
    peer.sent();
    ASSERT_TRUE(peer.hear(requestFor(file, {{0, 10}})));
    peer.leave();
    uploadPool.tick(900);
    // A limited peer takes what lies in the network's buffers for a while: many short waits are no long one.
    ASSERT_TRUE(peer.hear(requestFor(file, {{10, 20}})));
    EXPECT_EQ(peer.leave().substr(17, 8), le32(10) + le32(20));
    uploadPool.tick(900);
    uploadPool.tick(100);
    EXPECT_EQ(peer.sent(), Answers{});
    uploadPool.tick(1);
    EXPECT_EQ(peer.sent(), (Answers{slotEnded, slotGranted}));
    // Asked for nothing, it ends when its packet has left.
    ASSERT_TRUE(peer.hear(requestFor(file, {{0, 10}})));
    ASSERT_TRUE(peer.hear(requestFor(file, {{0, 0}})));
    peer.leave();
    EXPECT_EQ(peer.sent(), (Answers{slotEnded, slotGranted}));
}

// Slots run out after two minutes; with connections full they are tried every minute; who can't be reached
// loses his at once, and his place is given to the next.
TEST_F(UploadPoolTest, SlotsEnd) {
    asking(1);
    uploadPool.tick(120'000);
    EXPECT_EQ(drawn(), "1 |");
    log.take();
    uploadPool.tick(1);
    EXPECT_EQ(drawn(), "|");
    EXPECT_EQ(log.take(), "Slot time out: user1\n");

    // A user who isn't connected, and no room to call him.
    allAsk(2, 4);
    made[3]->end();
    clientApp.socketPool.count = 45;
    ASSERT_TRUE(made[1]->hear(opcode(86)));
    EXPECT_EQ(drawn(), "3 4 |");
    for (int minute = 0; minute < 3; ++minute) {
        log.take();
        uploadPool.tick(60'000);
        EXPECT_EQ(log.take().find("tellPeer"), std::string::npos);
        uploadPool.tick(1);
        EXPECT_NE(log.take().find("UploadSlot::tellPeer() 10.0.0.4,4662\nCan't accept more connections.\n"),
                  std::string::npos);
    }
    // On its way: that is waited for like any other.
    clientApp.socketPool.count = 0;
    uploadPool.tick(60'001);
    uploadPool.tick(120'000);
    uploadPool.connectFailed(addressOf(4), 4661);
    EXPECT_EQ(drawn(), "4 |");
    uploadPool.connectFailed(addressOf(4), 4662);
    EXPECT_EQ(drawn(), "|");
}

TEST_F(UploadPoolTest, WhoGoesOrCannotBeReachedIsForgottenAndHisPlaceIsGiven) {
    allAsk(1, 3);
    ASSERT_TRUE(made[0]->hear(requestFor(file, {{0, 10}})));
    made[0]->end();
    EXPECT_EQ(drawn(), "2 3 |");
    EXPECT_EQ(made[2]->sent(), Answers{slotGranted});
    for (const Ref<TestPeer>& peer : made) peer->end();
    EXPECT_EQ(drawn(), "|");
    // Both sides firewalled.
    preferences.setClientId(5);
    TestPeer& low = stranger(4);
    ASSERT_TRUE(low.hear(opcode(
        1, "\x10" + bytesOf(hashOf(4)) + le32(77) + le16(4662) + le32(0) + le32(addressOf(9)) + le16(4661))));
    peers.remove(&low);
    ASSERT_TRUE(low.hear(opcode(84)));
    uploadPool.callbackFailed(addressOf(8), 77);
    EXPECT_EQ(drawn(), "4 |");
    uploadPool.tick(1);
    EXPECT_EQ(drawn(), "|");
    ASSERT_TRUE(low.hear(opcode(84)));
    uploadPool.callbackFailed(addressOf(9), 77);
    EXPECT_EQ(drawn(), "|");
}

}  // namespace
