// Uploads: who may download from this client (the rule, the queue, the slots and their time-outs), and a
// running upload: what it sends for each request, and its measured speed.
#include <tuple>

#include "peer/PartUpload.h"
#include "peer/Upload.h"
#include "peer/UploadSlot.h"
#include "protocol/PeerProtocol.h"
#include "tests/support/Downloads.h"

namespace {

using Range = std::pair<u32, u32>;

constexpr int all = 1000;

class UploadTest : public Downloads {
  protected:
    UploadTest() {
        shareFile(hash, "shared.bin", file.bytes);
        begin();
    }
    void begin() {
        std::unique_ptr<i4_file> stream = i4_open_exact(directory.file("shared.bin").c_str(), I4_FILE_READ);
        upload = Ref<Upload>(new Upload(uploadPool, log, std::move(stream), to, "shared.bin", hash));
    }
    // Requests ranges and sends `packets` packets. Returns what was sent as "start-end start-end", and
    // compares every byte.
    std::string ask(std::vector<Range> ranges, int packets = all) {
        ranges.resize(3);
        const u32 starts[3] = {ranges[0].first, ranges[1].first, ranges[2].first};
        const u32 ends[3] = {ranges[0].second, ranges[1].second, ranges[2].second};
        const bool idle = upload->bytesSent == 0 || upload->hasRunDry();
        upload->setRanges(starts, ends);
        if (idle) upload->sendNext();
        return leave(packets);
    }
    std::string leave(int packets = all) {
        std::string told;
        for (std::string body; packets > 0 && !(body = to.leave()).empty(); --packets) {
            const u32 start = u32At(body, 17);
            const u32 end = u32At(body, 21);
            EXPECT_TRUE(body == opcode(OP_FILE_DATA, bytesOf(hash)) + le32(start) + le32(end) +
                                    sending->bytes.substr(start, end - start));
            told += (told.empty() ? "" : " ") + std::to_string(start) + "-" + std::to_string(end);
        }
        return told;
    }

    RemoteFile file{"shared.bin", 2'000'000};
    const RemoteFile* sending = &file;
    MD4Hash hash = file.record.hash;
    TestPeer& to = peer(1);
    Ref<Upload> upload;
};

TEST_F(UploadTest, SendsWhatIsAskedFor) {
    struct Step {
        std::vector<Range> ask;
        int packets;
        const char* sent;
    };
    const std::vector<Step> cases[] = {
        // In pieces.
        {{{{100, 110}, {1000, 26'000}}, all, "100-110 1000-11240 11240-21480 21480-26000"}},
        // Invalid ranges count as empty and are moved behind the others.
        {{{{50, 50}, {60, 40}, {70, 80}}, all, "70-80"}, {{{5, 5}, {4, 3}, {0, 0}}, all, ""}},
        // It continues at its position if that is in the first range; otherwise at the start of the range.
        {{{{0, 50'000}}, 1, "0-10240"},
         {{{5000, 40'000}, {60'000, 60'010}}, 1, "10240-20480"},
         {{{30'720, 35'000}, {60'000, 60'010}}, all, "20480-30720 30720-35000 60000-60010"}},
        // What was just sent isn't sent again, whether the request is two ranges late or everything was sent.
        {{{{0, 10}, {10, 20}, {20, 30}}, 1, "0-10"},
         {{{0, 10}, {10, 20}, {20, 30}}, all, "10-20 20-30"},
         {{{10, 20}, {20, 30}, {30, 40}}, all, "30-40"},
         // What was sent before, but isn't in front of the last range, is requested again.
         {{{5, 15}, {30, 40}, {20, 30}}, all, "5-15 20-30"},
         {{{0, 10}}, all, "0-10"}},
    };
    for (const std::vector<Step>& steps : cases) {
        begin();
        for (const Step& step : steps) EXPECT_EQ(ask(step.ask, step.packets), step.sent);
    }
    EXPECT_TRUE(upload->hasRunDry());
    EXPECT_EQ(upload->bytesSent, 7 * (30U + 10U));
    ask({{5, 5}});
    EXPECT_FALSE(upload->hasRunDry()) << "asked for nothing, it is at its end";
}

TEST_F(UploadTest, StartAndEndAreToldUnlessThereAreTooManyInAMinute) {
    upload = {};
    const std::string both = "New Upload\n~Upload\n";
    EXPECT_EQ(log.take(), both);
    int told = 0;
    for (int i = 0; i < 200; ++i) {
        begin();
        upload = {};
        const std::string said = log.take();
        EXPECT_TRUE(said.empty() || said == both) << said;
        told += !said.empty();
    }
    EXPECT_TRUE(told >= 59 && told <= 120) << "in one minute, or at the turn of two: " << told;
}

TEST_F(UploadTest, TheSpeedIsTheMeanOfEightSamplesAndSetsThePacket) {
    upload->bytesSent = 1'000'000;
    upload->updateSpeed(2000);
    EXPECT_EQ(upload->speed, 0.0F);
    upload->updateSpeed(500);
    EXPECT_FLOAT_EQ(upload->speed, 400.0F / 8);
    // The count wraps around. Packets have at most a megabyte, whatever the speed.
    for (const auto& [bytes, speed, sent] : {std::tuple{1'000'000U, 400.0F, "0-51200"},
                                             {0x40000000U, 429'499.3F, "51200-102400 102400-1150976"}}) {
        for (int i = 0; i < 8; ++i) {
            upload->bytesSent.add(bytes);
            upload->updateSpeed(2500);
        }
        EXPECT_NEAR(upload->speed, speed, 1.0F);
        if (speed < 1000) upload->sendNext();
        EXPECT_EQ(speed < 1000 ? ask({{0, 2'000'000}}, 1) : leave(2), sent);
    }
}

TEST_F(UploadTest, EndsWhenItIsStoppedOrCantRead) {
    EXPECT_EQ(ask({{0, 50'000}}, 1), "0-10240");
    upload->stop();
    EXPECT_EQ(leave(), "10240-20480");
    ASSERT_TRUE(to.hear(opcode(OP_REQUEST_SLOT)));
    to.sent();
    ASSERT_TRUE(to.hear(requestFor(hash, {{1'999'990, 2'000'010}})));
    // Back in the queue and, as the line is free, granted a slot again.
    EXPECT_EQ(to.sent(), (std::vector{opcode(OP_SLOT_ENDED), opcode(OP_SLOT_GRANTED)}));
}

// An upload of a file being downloaded; then the file moves, and the upload continues.
TEST_F(UploadTest, OfAFileUnderDownloadItSendsWhatIsVerified) {
    const RemoteFile film("shared.bin", PARTSIZE + 100'000);
    sending = &film;
    hash = film.record.hash;
    const Ref<Download> download = add(film);
    giveHashSet(*download, film.parts);
    give(*download, film, 0, PARTSIZE + 50'000);
    const auto parts = [&] { return engine.peerNeeds.files.partsFor(hash, User(1)); };
    const auto begin = [&] {
        upload = Ref<Upload>(new PartUpload(uploadPool, log, host.disk, parts(), to, hash));
    };
    begin();
    {
        const i4_guard guard(download->stateLock());
        EXPECT_EQ(download->state().getSources()->count(), 1U) << "whoever fetches has, or will have, parts";
    }
    EXPECT_EQ(ask({{PARTSIZE + 100, PARTSIZE + 200}}), "") << "not verified";
    begin();
    EXPECT_EQ(ask({{0, 20'000}}, 1), "0-10240");
    writeFile(incoming("shared.bin"), "of another download of that name");
    give(*download, film, PARTSIZE + 50'000, film.size());
    waitUntilGone(download);
    EXPECT_EQ(leave(), "10240-20000");
    EXPECT_EQ(ask({{PARTSIZE + 99'990, PARTSIZE + 100'000}}),
              std::to_string(PARTSIZE + 99'990) + "-" + std::to_string(PARTSIZE + 100'000));
}

// --- Assignment of slots

const MD4Hash file = hashOf(0xF0);
const std::string slotGranted = opcode(OP_SLOT_GRANTED);
const std::string slotEnded = opcode(OP_SLOT_ENDED);

class UploadPoolTest : public EngineTest {
  protected:
    using Answers = std::vector<std::string>;
    UploadPoolTest() { shareFile(file, "shared.bin", std::string(100'000, 'x')); }

    // The users with a slot, and those waiting, by the first byte of their hash: "1 2 | 3".
    std::string drawn() {
        const i4_guard guard(uploadPool);
        std::string users;
        for (LL<UploadSlot>::Cursor c; const UploadSlot* slot = uploadPool.getSlots().next(c);)
            users += std::to_string(slot->getUser().hash.bytes[0]) + " ";
        users += "|";
        for (LL<QueuedUser>::Cursor c; const QueuedUser* user = uploadPool.getQueue().next(c);)
            users += " " + std::to_string(user->hash.bytes[0]);
        return users;
    }
    void ageQueue(u32 ms) {
        const i4_guard guard(uploadPool);
        for (LL<QueuedUser>::Cursor c; QueuedUser* user = uploadPool.getQueue().next(c);)
            user->setInt(TAG_QTIME, user->getInt(TAG_QTIME) - ms);
    }
    // A user without a hash.
    static std::string nobody(u8 last) {
        return std::string(16, '\0') + le32(addressOf(last)) + le16(4662) + le32(0) + le32(0) + le16(0);
    }
    void allAsk(u8 first, u8 last) {
        for (u8 user = first; user <= last; ++user) answers(peer(user), opcode(OP_REQUEST_SLOT));
    }
    static Answers answers(TestPeer& peer, const std::string& message) {
        peer.sent();
        EXPECT_TRUE(peer.hear(message));
        return peer.sent();
    }
    // Sends the next packet of the upload for this request of `peer`; the rest is dropped from the queue.
    void transfers(TestPeer& peer, const MD4Hash& of, u32 start, u32 end) {
        peer.sent();
        EXPECT_TRUE(peer.hear(requestFor(of, {{start, end}})));
        peer.leave();
    }
};

TEST(SlotRule, FollowsTheLine) {
    // KB/s of the line and in use; slots; slots and uploads; whether another upload may start.
    const std::pair<SlotRule, bool> rows[] = {
        {{5, 0, 0, 1}, true},        // two uploads always
        {{5, 0, 0, 2}, true},        // 3 of the 4.5 KB/s are free
        {{5, 0, 1, 2}, false},       // but not twice
        {{5, 1.5F, 0, 2}, false},    // exactly 3 isn't enough
        {{17.9F, 17, 0, 2}, false},  // 17.9 / 6 is 2
        {{18, 18, 0, 2}, true},     {{18, 18, 0, 3}, false}, {{60, 50.9F, 0, 10}, true},
        {{60, 51, 0, 10}, false},   {{0, 0, 0, 2}, false},   {{1e30F, 0, 0, 5}, true},
    };
    for (const auto& [rule, starts] : rows)
        EXPECT_EQ(rule.canStart(), starts) << rule.capacity << rule.active;
}

TEST_F(UploadPoolTest, ASlotTurnsIntoATransferAndBackIntoAPlaceInTheQueue) {
    TestPeer& peer = this->peer(1);
    const std::string request = requestFor(file, {{0, 10}});
    const struct {
        std::string hears;
        Answers answers;
        const char* drawn;
    } steps[] = {
        {opcode(OP_REQUEST_SLOT), {slotGranted}, "1 |"},                        // the line is free
        {opcode(OP_REQUEST_SLOT), {}, "1 |"},                                   // asked again
        {opcode(OP_HELLO_ANSWER, identity(1, "user1")), {slotGranted}, "1 |"},  // called again
        {requestFor(hashOf(0xEE), {{0, 10}}), {opcode(OP_NO_SUCH_FILE, bytesOf(hashOf(0xEE)))}, "1 |"},
        {request, {opcode(OP_FILE_DATA, bytesOf(file) + le32(0) + le32(10) + std::string(10, 'x'))}, "|"},
        {opcode(OP_REQUEST_SLOT), {}, "|"},  // a user with an upload gets no slot as well
        {opcode(OP_STOP_UPLOAD, bytesOf(file)), {slotEnded, slotGranted}, "1 |"},
    };
    for (const auto& step : steps) {
        EXPECT_EQ(answers(peer, step.hears), step.answers) << &step - steps;
        EXPECT_EQ(drawn(), step.drawn);
    }
    // A missing file keeps the slot.
    std::filesystem::remove(directory.file("shared.bin"));
    EXPECT_EQ(answers(peer, request), Answers{opcode(OP_NO_SUCH_FILE, bytesOf(file))});
    EXPECT_EQ(drawn(), "1 |");
}

// A slow line grants only two slots.
TEST_F(UploadPoolTest, FiftyWaitInTheirOrderAndRenewTheirTimes) {
    allAsk(1, 53);
    const std::string full = drawn();
    EXPECT_EQ(std::count(full.begin(), full.end(), ' '), 2 + 50);
    EXPECT_EQ(full.substr(0, 9) + full.substr(full.size() - 6), "1 2 | 3 4 51 53") << "the last gave way";
    // Who had an upload comes on top.
    transfers(*made[0], file, 0, 10);
    answers(*made[0], opcode(OP_STOP_UPLOAD, bytesOf(file)));
    EXPECT_EQ(drawn().substr(0, 9), "2 3 | 4 5");
    // The others have stopped asking. However full the queue is, a renewal counts.
    ageQueue(2'700'001);
    for (const std::size_t place : {9U, 52U}) answers(*made[place], opcode(OP_REQUEST_SLOT));
    for (const std::size_t place : {1U, 2U}) answers(*made[place], opcode(OP_RELEASE_SLOT));
    EXPECT_EQ(drawn(), "10 53 | 1");
    EXPECT_EQ(made[9]->sent(), Answers{slotGranted});
    // Strangers without a hash are told apart by their address.
    for (u8 last = 71; last <= 72; ++last) answers(visitor(last, nobody(last)), opcode(OP_REQUEST_SLOT));
    EXPECT_EQ(drawn(), "10 53 | 1 0 0");
}

TEST_F(UploadPoolTest, StrangersDoNotFillTheQueue) {
    allAsk(1, 2);
    // A user without a hash, who has another ID each time.
    TestPeer& manyNames = visitor(3, nobody(3));
    for (u8 n = 0; n < 20; ++n) {
        answers(manyNames, opcode(OP_NEW_IDENTITY, le32(addressOf(n)) + le32(0)));
        answers(manyNames, opcode(OP_REQUEST_SLOT));
    }
    EXPECT_EQ(drawn(), "1 2 | 0 0 0 0 0 0 0 0");
    // How many with a hash from 100 up wait, and how many below.
    const auto waiting = [&] {
        std::pair<int, int> counts;
        const i4_guard guard(uploadPool);
        for (LL<QueuedUser>::Cursor c; const QueuedUser* user = uploadPool.getQueue().next(c);)
            ++(user->hash.bytes[0] >= 100 ? counts.first : counts.second);
        return counts;
    };
    // Many users at one address, up to half of the queue; and then twelve at another.
    for (u8 user = 101; user <= 180; ++user)
        answers(visitor(user <= 140 ? 9 : 10, identity(user)), opcode(OP_REQUEST_SLOT));
    EXPECT_EQ(waiting(), std::pair(25 - 8 + 12, 8));
    // Full, it has room for newcomers, at the cost of whoever has taken most; not of who was reached.
    answers(reached(11), opcode(OP_REQUEST_SLOT));
    allAsk(12, 40);
    EXPECT_EQ(waiting(), std::pair(29 - 16, 8 - 1 + 30));
    allAsk(41, 99);
    EXPECT_NE(drawn().find(" 11 "), std::string::npos);
}

// A user who claims another's address makes us call there once.
TEST_F(UploadPoolTest, WhoDidNotAnswerIsNotCalledAgain) {
    const auto called = [&](const std::string& comes) {
        TestPeer& peer = visitor(9, comes);
        answers(peer, opcode(OP_REQUEST_SLOT));
        peer.end();
        log.take();
        answers(*made[0], opcode(OP_RELEASE_SLOT));
        const bool isCalled = log.take().find("tellPeer() 10.0.0.30,4662") != std::string::npos;
        uploadPool.connectFailed(addressOf(30), 4662);
        answers(*made[0], opcode(OP_REQUEST_SLOT));
        std::swap(made[0], made[1]);
        return isCalled;
    };
    allAsk(1, 2);
    EXPECT_TRUE(called(identity(30)));
    EXPECT_FALSE(called(identity(30)));
    EXPECT_FALSE(called(identity(31, "", addressOf(30)))) << "under another name";
    // Once he answers, he is called as ever.
    reached(30).end();
    EXPECT_TRUE(called(identity(30)));
}

TEST_F(UploadPoolTest, AUserWithSeveralConnectionsIsOneUser) {
    allAsk(1, 1);
    transfers(*made[0], file, 0, 10);
    TestPeer& again = peer(1);
    EXPECT_EQ(answers(again, opcode(OP_REQUEST_SLOT)), Answers{});
    uploadPool.tick(30'001);
    made[0]->end();
    EXPECT_EQ(again.sent(), Answers{slotGranted});
    // After his transfer he stands in line once.
    allAsk(2, 3);
    answers(again, requestFor(file, {{0, 10}}));
    answers(peer(1), opcode(OP_REQUEST_SLOT));
    answers(again, opcode(OP_STOP_UPLOAD, bytesOf(file)));
    EXPECT_EQ(drawn(), "2 3 | 1");
}

// Two at one address can't always be told apart.
TEST_F(UploadPoolTest, WhoWasToldInAnothersPlaceIsServedAndSoIsHe) {
    const std::string request = requestFor(file, {{0, 10}});
    const Answers data{opcode(OP_FILE_DATA, bytesOf(file) + le32(0) + le32(10) + std::string(10, 'x'))};
    allAsk(1, 2);
    TestPeer& neighbour = visitor(3, identity(4, "", addressOf(3)));
    allAsk(3, 3);
    TestPeer& first = *made.back();
    answers(*made[0], opcode(OP_RELEASE_SLOT));
    EXPECT_EQ(neighbour.sent(), Answers{}) << "he is there himself";
    EXPECT_EQ(first.sent(), Answers{slotGranted});
    answers(first, opcode(OP_RELEASE_SLOT));
    for (TestPeer* asking : {made[0].get(), &first}) answers(*asking, opcode(OP_REQUEST_SLOT));
    first.end();
    answers(*made[0], opcode(OP_RELEASE_SLOT));
    EXPECT_EQ(neighbour.sent(), Answers{slotGranted});
    EXPECT_EQ(answers(neighbour, request), data);
    // Who only claims that address, and says no hello, has nothing of it.
    TestPeer& impostor = stranger(5);
    answers(impostor, opcode(OP_NEW_IDENTITY, le32(addressOf(3)) + le32(0)));
    EXPECT_EQ(answers(impostor, request), Answers{});
    impostor.end();
    TestPeer& himself = stranger(3);
    EXPECT_EQ(answers(himself, opcode(OP_HELLO, "\x10" + identity(3))).back(), slotGranted);
    EXPECT_EQ(answers(himself, request), data);
    EXPECT_EQ(drawn(), "2 |");
}

TEST_F(UploadPoolTest, WhoHasCrossedIntoAnotherPartMakesWay) {
    FileMeta& large = shareFile(hashOf(0xF1), "large.bin", "");
    std::filesystem::resize_file(large.path.c_str(), 2 * PARTSIZE);
    allAsk(1, 2);
    // While nobody waits, an upload continues.
    transfers(*made[0], large.hash, PARTSIZE, PARTSIZE + 10);
    EXPECT_TRUE(made[0]->hear(requestFor(large.hash, {{0, 100'000}})));
    allAsk(3, 3);
    answers(*made[1], requestFor(file, {{0, 10}}));
    EXPECT_EQ(drawn(), "| 3");
    // Now that somebody waits, it may be ended, and its place counts as free.
    EXPECT_TRUE(made[0]->hear(requestFor(large.hash, {{PARTSIZE, PARTSIZE + 100'000}})));
    allAsk(4, 5);
    EXPECT_EQ(drawn(), "4 | 3 5");
    made[0]->sent();
    answers(*made[3], requestFor(file, {{0, 10}}));
    EXPECT_EQ(made[0]->sent(), Answers{slotEnded});
    EXPECT_EQ(drawn(), "| 3 5 1");
}

TEST_F(UploadPoolTest, ATransferWithNothingToSendWaitsForTheNextRequest) {
    allAsk(1, 1);
    TestPeer& peer = *made[0];
    transfers(peer, file, 0, 10);
    uploadPool.tick(9000);
    // A limited peer reads from the network's buffers for a while: many short waits don't add up to a long
    // one.
    transfers(peer, file, 10, 20);
    uploadPool.tick(10'000);
    EXPECT_EQ(peer.sent(), Answers{});
    uploadPool.tick(1);
    EXPECT_EQ(peer.sent(), (Answers{slotEnded, slotGranted}));
    // After an empty request, it ends once its packet was sent.
    EXPECT_TRUE(peer.hear(requestFor(file, {{0, 10}})));
    EXPECT_TRUE(peer.hear(requestFor(file, {{0, 0}})));
    peer.leave();
    EXPECT_EQ(peer.sent(), (Answers{slotEnded, slotGranted}));
}

// Slots expire after two minutes. While connections are full they are tried every minute. A user who can't be
// reached loses his slot at once, and the next one gets it.
TEST_F(UploadPoolTest, SlotsEnd) {
    allAsk(1, 1);
    uploadPool.tick(1'000'000);
    uploadPool.tick(120'000);
    EXPECT_EQ(drawn(), "1 |") << "what passed before a slot was granted isn't its time";
    uploadPool.tick(1);
    EXPECT_EQ(drawn(), "|");

    // A user who isn't connected, and no room to connect.
    allAsk(2, 4);
    made[3]->end();
    clientApp.socketPool.count = 45;
    answers(*made[1], opcode(OP_RELEASE_SLOT));
    EXPECT_EQ(drawn(), "3 4 |");
    uploadPool.tick(0);
    for (const u32 ms : {60'000U, 1U, 60'000U, 1U, 60'000U, 1U}) {
        log.take();
        uploadPool.tick(ms);
        const bool tried =
            log.take().find("tellPeer() 10.0.0.4,4662\nCan't accept more") != std::string::npos;
        EXPECT_EQ(tried, ms == 1);
    }
    // Connecting: it waits like any other.
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
    transfers(*made[0], file, 0, 10);
    made[0]->end();
    EXPECT_EQ(drawn(), "2 3 |");
    EXPECT_EQ(made[2]->sent(), Answers{slotGranted});
    for (const Ref<TestPeer>& peer : made) peer->end();
    EXPECT_EQ(drawn(), "|");
    // Both sides are firewalled.
    preferences.setClientId(5);
    TestPeer& low = stranger(4);
    const std::string user = bytesOf(hashOf(4)) + le32(77) + le16(4662) + le32(0);
    answers(low, opcode(OP_HELLO, "\x10" + user + le32(addressOf(9)) + le16(4661)));
    peers.remove(&low);
    answers(low, opcode(OP_REQUEST_SLOT));
    uploadPool.callbackFailed(addressOf(8), 77);
    EXPECT_EQ(drawn(), "4 |");
    uploadPool.tick(1);
    EXPECT_EQ(drawn(), "|");
    answers(low, opcode(OP_REQUEST_SLOT));
    uploadPool.callbackFailed(addressOf(9), 77);
    EXPECT_EQ(drawn(), "|");
}

}  // namespace
