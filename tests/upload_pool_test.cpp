// Who may download from this client: the rule, the queue, the slots and their time-outs.
#include "peer/Upload.h"
#include "peer/UploadSlot.h"
#include "tests/support/Engine.h"

namespace {

const MD4Hash file = hashOf(0xF0);

std::string request(const MD4Hash& hash, u32 start, u32 end) {
    return opcode(71, bytesOf(hash) + le32(start) + le32(0) + le32(0) + le32(end) + le32(0) + le32(0));
}

class UploadPoolTest : public Engine {
  protected:
    UploadPoolTest() { shareFile(file, "shared.bin", std::string(100'000, 'x')); }

    // The users who wait, and those who hold a slot, by the first byte of their hash.
    std::string queue() {
        const i4_guard guard(uploadPool);
        std::string users;
        for (LL<UserMeta>::Cursor c; const UserMeta* user = uploadPool.getQueue().next(c);) {
            users += std::to_string(user->hash.bytes[0]) + " ";
        }
        return users;
    }
    std::string slots() {
        const i4_guard guard(uploadPool);
        std::string users;
        for (LL<UploadSlot>::Cursor c; const UploadSlot* slot = uploadPool.getSlots().next(c);) {
            users += std::to_string(slot->getUser().hash.bytes[0]) + " ";
        }
        return users;
    }
    void ageQueue(u32 ms) {
        const i4_guard guard(uploadPool);
        for (LL<UserMeta>::Cursor c; UserMeta* user = uploadPool.getQueue().next(c);) {
            user->setInt(TAG_QTIME, user->getInt(TAG_QTIME) - ms);
        }
    }
    TestPeer& asking(u8 last) {
        TestPeer& result = peer(last, "user" + std::to_string(last));
        EXPECT_TRUE(result.hear(opcode(84)));
        return result;
    }
    // Two slots are all that a slow line grants.
    void fillLine() {
        asking(1);
        asking(2);
        ASSERT_EQ(slots(), "1 2 ");
    }
};

TEST(SlotRule, FollowsTheLine) {
    const struct {
        f32 capacity;
        f32 used;
        u32 slots;
        u32 active;
        bool starts;
    } rows[] = {
        {5, 0, 0, 1, true},       // two transfers always
        {5, 0, 0, 2, true},       // 3 of the 4.5 KB/s are free
        {5, 0, 1, 2, false},      // but not twice
        {5, 1.5F, 0, 2, false},   // just 3 aren't less than 3
        {17.9F, 17, 0, 1, true},  // 17.9 / 6 is 2
        {17.9F, 17, 0, 2, false}, {18, 18, 0, 2, true},         {18, 18, 0, 3, false},
        {60, 60, 9, 9, true},     {60, 60, 0, 10, false},       {60, 50.9F, 0, 10, true},
        {60, 51, 0, 10, false},   {1000, 1000, 165, 165, true}, {1000, 1000, 0, 166, false},
        {0, 0, 0, 1, true},       {0, 0, 0, 2, false},          {1e30F, 0, 0, 5, true},
    };
    for (const auto& row : rows) {
        EXPECT_EQ((SlotRule{row.capacity, row.used, row.slots, row.active}.canStart()), row.starts)
            << row.capacity << " " << row.used << " " << row.slots << " " << row.active;
    }
}

TEST_F(UploadPoolTest, WhoComesAtAGoodMomentIsToldAtOnce) {
    TestPeer& first = asking(1);
    EXPECT_EQ(first.sentOne(), opcode(85));
    EXPECT_EQ(slots(), "1 ");
    // Again changes nothing.
    ASSERT_TRUE(first.hear(opcode(84)));
    EXPECT_EQ(slots(), "1 ");
    EXPECT_EQ(first.sent().size(), 0U);
    // Called again, he is told again.
    ASSERT_TRUE(first.hear(opcode(76, identity(1, "user1"))));
    EXPECT_EQ(first.sentOne(), opcode(85));
}

TEST_F(UploadPoolTest, TheQueueKeepsItsOrderAndRenewsItsTimes) {
    fillLine();
    TestPeer& third = asking(3);
    EXPECT_EQ(third.sent().size(), 0U);
    asking(4);
    asking(5);
    EXPECT_EQ(queue(), "3 4 5 ");
    ageQueue(2'700'001);
    ASSERT_TRUE(made[3]->hear(opcode(84)));
    EXPECT_EQ(queue(), "3 4 5 ");
    // The first one has stopped asking: the next one's turn.
    ASSERT_TRUE(made[0]->hear(opcode(86)));
    EXPECT_EQ(slots(), "2 4 ");
    EXPECT_EQ(queue(), "5 ");
    EXPECT_EQ(made[3]->sentOne(), opcode(85));
}

TEST_F(UploadPoolTest, FiftyWait) {
    fillLine();
    for (u8 i = 10; i < 59; ++i) asking(i);
    asking(90);
    asking(91);
    const std::string full = queue();
    EXPECT_EQ(std::count(full.begin(), full.end(), ' '), 50);
    EXPECT_EQ(full.find("91"), std::string::npos);
    // A renewal is dropped as well: he ages on.
    ageQueue(2'700'001);
    ASSERT_TRUE(made[2]->hear(opcode(84)));
    ASSERT_TRUE(made[0]->hear(opcode(86)));
    EXPECT_EQ(slots(), "2 ");
    EXPECT_EQ(queue(), "");
}

TEST_F(UploadPoolTest, StrangersWithoutAHashAreToldApartByTheirAddress) {
    fillLine();
    for (const u8 last : {u8{31}, u8{32}}) {
        TestPeer& peer = stranger(last);
        const std::string record =
            std::string(16, '\0') + le32(addressOf(last)) + le16(4662) + le32(0) + le32(0) + le16(0);
        ASSERT_TRUE(peer.hear(opcode(1, "\x10" + record)));
        ASSERT_TRUE(peer.hear(opcode(84)));
    }
    EXPECT_EQ(queue(), "0 0 ");
}

TEST_F(UploadPoolTest, ASlotTurnsIntoATransferAndBackIntoAPlaceInTheQueue) {
    TestPeer& peer = asking(1);
    peer.sent();
    ASSERT_TRUE(peer.hear(request(hashOf(0xEE), 0, 10)));
    EXPECT_EQ(peer.sentOne(), opcode(72, bytesOf(hashOf(0xEE))));
    EXPECT_EQ(slots(), "1 ");
    ASSERT_TRUE(peer.hear(request(file, 0, 10)));
    EXPECT_EQ(slots(), "");
    EXPECT_EQ(peer.sentOne(), opcode(70, bytesOf(file) + le32(0) + le32(10) + std::string(10, 'x')));
    // Who transfers gets no slot on top.
    ASSERT_TRUE(peer.hear(opcode(84)));
    EXPECT_EQ(slots(), "");
    log.take();
    ASSERT_TRUE(peer.hear(opcode(73, bytesOf(file))));
    EXPECT_EQ(log.take().substr(0, 32), "UploadPool::stopUpload(user1)\nUp");
    // The line is free: his turn comes at once.
    EXPECT_EQ(peer.sent(), (std::vector<std::string>{opcode(87), opcode(85)}));
    EXPECT_EQ(slots(), "1 ");
    EXPECT_EQ(queue(), "");
}

TEST_F(UploadPoolTest, AFileThatIsGoneLeavesTheSlot) {
    std::filesystem::remove(directory.file("shared.bin"));
    TestPeer& peer = asking(1);
    peer.sent();
    log.take();
    ASSERT_TRUE(peer.hear(request(file, 0, 10)));
    EXPECT_EQ(log.take(), "File not found for upload: " + directory.file("shared.bin") + "\n");
    EXPECT_EQ(peer.sentOne(), opcode(72, bytesOf(file)));
    EXPECT_EQ(slots(), "1 ");
}

TEST_F(UploadPoolTest, WhoHasCrossedIntoAnotherPartMakesWay) {
    FileMeta& large = shareFile(hashOf(0xF1), "large.bin", "");
    std::filesystem::resize_file(large.path.c_str(), 2 * PARTSIZE);
    TestPeer& first = asking(1);
    TestPeer& second = asking(2);
    first.sent();
    second.sent();
    // With nobody waiting, a transfer goes on unchallenged.
    ASSERT_TRUE(first.hear(request(large.hash, PARTSIZE - 10, PARTSIZE)));
    first.leave();
    ASSERT_TRUE(first.hear(request(large.hash, PARTSIZE, PARTSIZE + 100'000)));
    asking(3);
    ASSERT_TRUE(second.hear(request(file, 0, 10)));
    EXPECT_EQ(slots() + "| " + queue(), "| 3 ");
    // Now that somebody waits, it may be ended, and its place counts as free.
    ASSERT_TRUE(first.hear(request(large.hash, 0, 100'000)));
    asking(4);
    asking(5);
    EXPECT_EQ(slots() + "| " + queue(), "4 | 3 5 ");
    first.sent();
    log.take();
    ASSERT_TRUE(made[3]->hear(request(file, 0, 10)));
    EXPECT_NE(log.take().find("Queueing: user1\n"), std::string::npos);
    EXPECT_EQ(first.sentOne(), opcode(87));
    EXPECT_EQ(slots() + "| " + queue(), "| 3 5 1 ");
}

TEST_F(UploadPoolTest, ATransferWithNothingToSendWaitsASecondForTheNextRequest) {
    TestPeer& peer = asking(1);
    peer.sent();
    ASSERT_TRUE(peer.hear(request(file, 0, 10)));
    peer.leave();
    EXPECT_EQ(peer.sent().size(), 0U);
    uploadPool.tick(900);
    ASSERT_TRUE(peer.hear(request(file, 10, 20)));
    uploadPool.tick(900);
    EXPECT_EQ(peer.leave().substr(17, 8), le32(10) + le32(20));
    uploadPool.tick(1000);
    EXPECT_EQ(peer.sent().size(), 0U);
    uploadPool.tick(1);
    EXPECT_EQ(peer.sent(), (std::vector<std::string>{opcode(87), opcode(85)}));
    // Asked for nothing, it ends when its packet has left.
    ASSERT_TRUE(peer.hear(request(file, 0, 10)));
    ASSERT_TRUE(peer.hear(request(file, 0, 0)));
    peer.leave();
    EXPECT_EQ(peer.sent(), (std::vector<std::string>{opcode(87), opcode(85)}));
}

TEST_F(UploadPoolTest, ASlotRunsOutAfterTwoMinutes) {
    asking(1);
    uploadPool.tick(120'000);
    EXPECT_EQ(slots(), "1 ");
    log.take();
    uploadPool.tick(1);
    EXPECT_EQ(slots(), "");
    EXPECT_EQ(log.take(), "Slot time out: user1\n");
}

TEST_F(UploadPoolTest, WithConnectionsFullTheSlotIsTriedEveryMinute) {
    fillLine();
    asking(8).end();
    // A user who isn't connected, and no room to call him.
    clientApp.socketPool.count = 45;
    ASSERT_TRUE(made[0]->hear(opcode(86)));
    EXPECT_EQ(slots(), "2 8 ");
    for (int minute = 0; minute < 3; ++minute) {
        log.take();
        uploadPool.tick(60'000);
        EXPECT_EQ(log.take().find("tellPeer"), std::string::npos);
        uploadPool.tick(1);
        EXPECT_NE(log.take().find("UploadSlot::tellPeer() 10.0.0.8,4662\nCan't accept more connections.\n"),
                  std::string::npos);
    }
    clientApp.socketPool.count = 0;
    uploadPool.tick(60'001);
    // On its way: that is waited for like any other.
    uploadPool.tick(120'000);
    EXPECT_NE(slots().find("8 "), std::string::npos);
    uploadPool.connectFailed(addressOf(8), 4661);
    EXPECT_NE(slots().find("8 "), std::string::npos);
    uploadPool.connectFailed(addressOf(8), 4662);
    EXPECT_EQ(slots().find("8 "), std::string::npos);
}

TEST_F(UploadPoolTest, WhoCannotBeReachedLosesTheSlotAtTheNextTick) {
    preferences.setClientId(5);
    TestPeer& peer = stranger(1);
    ASSERT_TRUE(peer.hear(opcode(
        1, "\x10" + bytesOf(hashOf(1)) + le32(77) + le16(4662) + le32(0) + le32(addressOf(9)) + le16(4661))));
    peers.remove(&peer);
    ASSERT_TRUE(peer.hear(opcode(84)));
    EXPECT_EQ(slots(), "1 ");
    uploadPool.callbackFailed(addressOf(8), 77);
    EXPECT_EQ(slots(), "1 ");
    uploadPool.tick(1);
    EXPECT_EQ(slots(), "");
    ASSERT_TRUE(peer.hear(opcode(84)));
    uploadPool.callbackFailed(addressOf(9), 77);
    EXPECT_EQ(slots(), "");
}

TEST_F(UploadPoolTest, TheOneWhoGoesIsForgottenAndHisPlaceIsGiven) {
    fillLine();
    asking(3);
    made[0]->sent();
    ASSERT_TRUE(made[0]->hear(request(file, 0, 10)));
    made[0]->end();
    EXPECT_EQ(slots() + "| " + queue(), "2 3 | ");
    EXPECT_EQ(made[2]->sentOne(), opcode(85));
}

}  // namespace
