// A remote client that may have a file: every state, event and timer, and the chunks that are requested.
#include <functional>

#include "download/FSS_States.h"
#include "download/FileSource.h"
#include "tests/support/Downloads.h"
#include "tests/support/ManualClock.h"

namespace {

constexpr u32 chunk = 184'320;

enum From { unasked, onQueue, connecting, partsFirst, slotFirst, transfer, noNeeded, bad };

// A line with room for every transfer.
struct Line final : DownloadOwner {
    bool canStart() const override { return true; }
    void sourceStarted() override {}
    void transferStarted() override { ++transfers; }
    void transferEnded() override { --transfers; }
    void ticksWanted() override {}
    void ban(const SourceAccount&) override {}
    bool isBanned(const UserMeta&) override { return false; }
    int transfers = 0;
};

// An event of a source. The text is for failure messages.
struct Event {
    std::string text;
    std::function<void(Peer&)> happen;
};
#define EVENT(call)                                                                      \
    Event {                                                                              \
#call, [this]([[maybe_unused]] Peer & peer) { static_cast<void>(state().call); } \
    }

class FileSourceTest : public Downloads {
  protected:
    FileSourceTest() { begin(2 * PARTSIZE + 5); }
    ~FileSourceTest() override { source.reset(); }

    void begin(u32 size) {
        source.reset();
        FileMeta file;
        file.hash = hashOf(0xF0);
        file.setName("file.bin");
        file.setInt(TAG_SIZE, size);
        download = Ref<Download>(new Download(engine.downloadNeeds, line));
        ASSERT_TRUE(download->create(file));
        source = std::make_unique<FileSource>(User(1), *download);
    }
    template <class State, class... Arguments>
    void enter(Arguments&... arguments) {
        source->become<State>(arguments...);
    }
    // `flags` are the parts of the source, "-" if they aren't known.
    void put(From from, const std::string& flags) {
        begin(2 * PARTSIZE + 5);
        stays = true;
        if (flags != "-") source->setParts(partsOf(flags));
        if (from == onQueue) enter<FSS_OnQueue>();
        if (from == connecting) enter<FSS_WaitForConnection>();
        if (from == partsFirst) enter<FSS_WaitForChunksBQ>(*partner);
        if (from == slotFirst) enter<FSS_WaitForChunks>(*partner);
        if (from == transfer) enter<FSS_Transfering>(*partner);
        if (from == noNeeded) enter<FSS_NoNeededParts>();
        if (from == bad) enter<FSS_BadSource>();
    }
    FileSourceState& state() { return source->state(); }
    std::string label() { return state().label; }
    // Lets `ms` pass, in which nothing changes, and then one more millisecond.
    Event after(i32 ms) {
        return {"after " + std::to_string(ms), [this, ms](Peer&) {
                    const std::string before = label();
                    EXPECT_TRUE(state().tick(ms) && label() == before);
                    stays = state().tick(1);
                }};
    }
    // The opcodes queued for a peer. RequestParts is shown as its ranges, by chunk and bytes.
    static std::string said(TestPeer& peer) {
        std::string text;
        for (const std::string& body : peer.sent()) {
            text += " " + std::to_string(static_cast<u8>(body[0]));
            for (std::size_t i = 0; body[0] == 71 && i < 3; ++i) {
                const u32 start = u32At(body, 17 + 4 * i);
                const u32 bytes = u32At(body, 29 + 4 * i) - start;
                text += ":" + (bytes ? std::to_string(start / chunk) + "+" + std::to_string(bytes) : "-");
            }
        }
        return text;
    }
    std::string said() { return said(*partner); }
    // The number of bytes requested, and of bytes that a source has.
    u32 requested() { return count(countRequested, countDone); }
    u32 offered() { return count(1, countRequested); }
    u32 count(i32 least, i32 below) {
        u32 bytes = 0;
        download->progress().forEach([&](const GapCounter& run) {
            if (run.count >= least && run.count < below) bytes += static_cast<u32>(run.end - run.start);
        });
        return bytes;
    }

    Line line;
    Ref<Download> download;
    std::unique_ptr<FileSource> source;
    bool stays = true;  // false if a tick asked to remove the source
    TestPeer* const partner = &peer(1, "user1");
    TestPeer* const stranger = &peer(2);
};

// The source's next state and messages, whether chunks stay requested, and whether the slot is passed on. If
// no other download takes the slot, it is given back with 86.
TEST_F(FileSourceTest, FollowsTheTable) {
    const struct {
        From from;
        const char* parts;
        Event event;
        const char* outcome;
    } rows[] = {
        {unasked, "-", EVENT(tryConnect()), "Waiting for Chunks 88 79"},
        {unasked, "010", EVENT(tryConnect()), "On Queue 88 84"},
        {unasked, "111", EVENT(offerSlot(peer)), "Transferring, asked"},
        {unasked, "000", EVENT(offerSlot(peer)), "Waiting for Chunks 79"},
        {onQueue, "111", EVENT(offerSlot(peer)), "Transferring, asked"},
        {onQueue, "-", EVENT(offerSlot(peer)), "Waiting for Chunks 79"},
        {onQueue, "-", after(600'000), "Unasked"},
        {onQueue, "-", EVENT(idChanged()), "Unasked"},
        {connecting, "-", EVENT(peerConnected(peer)), "Waiting for Chunks 88 79"},
        {connecting, "010", EVENT(peerConnected(peer)), "On Queue 88 84"},
        {connecting, "000", EVENT(peerConnected(peer)), "Waiting for Chunks 88 79"},
        {connecting, "-", EVENT(reachFailed(ConnectFailed{addressOf(1), 4662})), "Bad Source"},
        {connecting, "-", EVENT(reachFailed(CallbackFailed{0, addressOf(1)})), "Bad Source"},
        {connecting, "-", after(240'000), "removed"},
        {partsFirst, "-", EVENT(gotFileStatus(partsOf("011"))), "On Queue 84"},
        {partsFirst, "-", EVENT(gotFileStatus(partsOf("000"))), "No Needed Parts"},
        {partsFirst, "-", EVENT(gotFileStatus(partsOf("11"))), "No Needed Parts"},
        {partsFirst, "-", after(60'000), "Bad Source"},
        {partsFirst, "-", EVENT(askHashSet()), "Waiting for Chunks 81"},
        {partsFirst, "-", EVENT(peerGone()), "Bad Source"},
        {partsFirst, "-", EVENT(noSuchFile()), "Bad Source"},
        {slotFirst, "-", EVENT(gotFileStatus(partsOf("100"))), "Transferring, asked"},
        {slotFirst, "-", EVENT(gotFileStatus(partsOf("000"))), "No Needed Parts, handed on"},
        {slotFirst, "-", EVENT(slotEnded()), "On Queue"},
        {slotFirst, "-", EVENT(drop()), "Bad Source, handed on"},
        {slotFirst, "-", after(60'000), "Bad Source, handed on"},
        {slotFirst, "-", EVENT(noSuchFile()), "Bad Source, handed on"},
        {slotFirst, "-", EVENT(peerGone()), "Bad Source"},
        {transfer, "111", EVENT(gotFileStatus(partsOf("000"))), "Transferring, asked"},
        {transfer, "111", EVENT(slotEnded()), "On Queue"},
        {transfer, "111", EVENT(peerGone()), "Bad Source 86"},
        {transfer, "111", EVENT(noSuchFile()), "Bad Source, handed on"},
        {transfer, "111", EVENT(drop()), "Bad Source 73, handed on"},
        {transfer, "111", after(360'000), "Unasked"},
        {noNeeded, "000", after(1'800'000), "Unasked"},
        {noNeeded, "101", EVENT(partReopened(2)), "Unasked"},
        {noNeeded, "101", EVENT(partReopened(1)), "No Needed Parts"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.from) + " " + row.parts + ", " + row.event.text);
        put(row.from, row.parts);
        remoteQueueList.clear();
        said();
        row.event.happen(*partner);
        std::string outcome = stays ? label() : "removed";
        const bool transfers = outcome == "Transferring";
        EXPECT_EQ(line.transfers, transfers ? 1 : 0);
        const std::string words = said();
        if (!transfers) outcome += words;
        if (requested() > 0) outcome += ", asked";
        handleMessages();
        if (said() == " 86") outcome += ", handed on";
        EXPECT_EQ(outcome, row.outcome);
    }
    put(bad, "-");
    EXPECT_FALSE(state().tick(0));
    put(noNeeded, "010");
    state().tick(1'800'001);
    EXPECT_EQ(source->parts(), nullptr) << "asked anew";
}

TEST_F(FileSourceTest, IsReachedOrNot) {
    // One connection below the limit: the source loses its turn and nothing else.
    clientApp.socketPool.count = preferences.maxCon - 1;
    EXPECT_TRUE(state().tryConnect());
    EXPECT_EQ(label(), "Unasked");
    clientApp.socketPool.count = 0;
    const auto tried = [this](const UserMeta& user) {
        source = std::make_unique<FileSource>(user, *download);
        EXPECT_TRUE(state().tryConnect());
        return label();
    };
    EXPECT_EQ(tried(User(99)), "Waiting for Connection");
    EXPECT_EQ(tried(User(100)), "Bad Source") << "ourselves";
    preferences.setClientId(5);
    UserMeta low;
    low.id = 77;
    EXPECT_EQ(tried(low), "Bad Source") << "neither can reach the other";
    source = std::make_unique<FileSource>(User(1), *download);
    source->gotName(std::string(300, 'n').c_str());
    EXPECT_EQ(source->name, std::string(255, 'n').c_str());
}

TEST_F(FileSourceTest, APlaceInItsQueueKeepsForHalfAnHour) {
    ManualClock clock;
    RemoteQueueList queues(clock);
    clock.ms = 1000;
    queues.note(*partner);
    UserMeta low;
    low.id = highestLowId;
    EXPECT_FALSE(queues.isWaiting(low));
    clock.ms += 1'799'999;
    EXPECT_TRUE(queues.isWaiting(User(1)));
    ++clock.ms;
    EXPECT_FALSE(queues.isWaiting(User(1)));
    remoteQueueList.note(*partner);
    said();
    EXPECT_FALSE(state().tryConnect()) << "it costs no connection";
    EXPECT_EQ(label() + said(), "On Queue");
    // Removed under the address whose connect failed.
    put(connecting, "-");
    state().reachFailed(ConnectFailed{addressOf(1), 4662});
    EXPECT_FALSE(remoteQueueList.isWaiting(User(1)));
}

TEST_F(FileSourceTest, ASmallFileIsTakenToBeThere) {
    for (const u32 size : {u32{1000}, PARTSIZE}) {
        begin(size);
        state().tryConnect();
        EXPECT_EQ(label() + said(), "On Queue 88 84");
        EXPECT_EQ(source->parts()->toText(), size == PARTSIZE ? "11" : "1");
        EXPECT_EQ(offered(), size);
        source->clearParts();
        EXPECT_EQ(offered(), 0U);
        EXPECT_TRUE(state().offerSlot(*partner));
        EXPECT_EQ(label(), "Transferring");
        EXPECT_NE(said(), "");
        remoteQueueList.clear();
    }
}

TEST_F(FileSourceTest, ChunksAreAskedForThreeAhead) {
    const auto fill = [this](u32 start, u32 end) {
        DataPacket packet(start, end, std::string(end - start, 'x'));
        packet.seek(8);
        download->partial().writeData(packet, start, end);
    };
    put(transfer, "100");
    EXPECT_EQ(said(), " 81 71:0+184320:1+184320:2+184320") << "the part hashes first";
    EXPECT_EQ(requested(), 3 * chunk);
    EXPECT_TRUE(state().wasAskedFor(chunk + 5, 2 * chunk));
    EXPECT_FALSE(state().wasAskedFor(chunk - 1, chunk + 1)) << "in two chunks";
    EXPECT_FALSE(state().wasAskedFor(3 * chunk, 3 * chunk + 1));
    fill(0, chunk - 1);
    state().gotData(1);
    fill(chunk, 2 * chunk);
    state().gotData(1);
    EXPECT_EQ(said(), "") << "one out of order waits for those before it";
    fill(chunk - 1, chunk);
    state().gotData(1);
    EXPECT_EQ(said(), " 71:2+184320:3+184320:4+184320");
    {
        FileSource second(User(2), *download);
        second.setParts(partsOf("001"));
        second.become<FSS_Transfering>(*stranger);
        EXPECT_EQ(said(*stranger), " 81 71:105+5:-:-");
    }
    // What failed is asked for anew, in other pieces, and by one source alone.
    download->partial().reopenPart(0);
    state().partReopened(0);
    state().askForMore();
    EXPECT_EQ(said(), " 71:0+183296:0+183296:1+183296");
    {
        FileSource second(User(2), *download);
        second.setParts(partsOf("100"));
        second.become<FSS_Transfering>(*stranger);
        EXPECT_EQ(said(*stranger), " 81");
    }
    // After 20 seconds without a byte, its chunks are free for others; what it has of the part is dropped.
    fill(0, 100);
    state().tick(20'001);
    EXPECT_EQ(requested(), 0U);
    EXPECT_TRUE(download->partial().overlaps(0, 100));
    EXPECT_TRUE(state().wasAskedFor(0, 100));
    // Nothing is left to request: the slot goes to other downloads.
    put(transfer, "001");
    fill(2 * PARTSIZE, 2 * PARTSIZE + 5);
    state().gotData(1);
    EXPECT_EQ(label(), "No Needed Parts");
    handleMessages();
    EXPECT_NE(said().find(" 86"), std::string::npos);
}

TEST_F(FileSourceTest, PartsAreCountedOnceAndAskedForAgain) {
    put(onQueue, "110");
    EXPECT_EQ(offered(), 2 * PARTSIZE);
    source->setParts(partsOf("011"));
    EXPECT_EQ(offered(), PARTSIZE + 5);
    source.reset();
    EXPECT_EQ(offered(), 0U);

    put(transfer, "110");
    said();
    for (int i = 0; i < 6; ++i) {
        state().tick(300'000);
        state().gotData(1);
    }
    EXPECT_EQ(said(), "");
    state().tick(1);
    EXPECT_EQ(said(), " 79");
    state().tick(1);
    EXPECT_EQ(said(), "");
}

}  // namespace
