// A remote client that may hold a file: every state, event and timer, and the chunks that are asked for.
#include "download/FSS_States.h"
#include "download/FileSource.h"
#include "tests/support/Downloads.h"
#include "tests/support/ManualClock.h"

namespace {

constexpr u32 chunk = 184'320;

enum From { unasked, onQueue, connecting, partsFirst, slotFirst, transfer, noNeeded, bad };

// A line with room for everybody.
struct Line final : DownloadOwner {
    bool canStart() const override { return true; }
    void sourceStarted() override {}
    void transferStarted() override { ++transfers; }
    void transferEnded() override { --transfers; }
    void ticksWanted() override {}

    int transfers = 0;
};

class FileSourceTest : public Downloads {
  protected:
    FileSourceTest() {
        begin(2 * PARTSIZE + 5);
        partner = &peer(1, "user1");
        stranger = &peer(2);
    }
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
        source->setState(std::make_unique<State>(*source, arguments...));
    }
    // `flags` tells which parts the source has, "-" that it isn't known.
    void put(From from, const std::string& flags) {
        begin(2 * PARTSIZE + 5);
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
    // An event of a peer, or one of nobody's. False where the source is to be removed.
    bool happen(const std::string& event, Peer& peer) {
        const std::string name = event.substr(0, event.find(' '));
        const std::string argument = event.size() > name.size() ? event.substr(name.size() + 1) : "";
        const int number = std::atoi(argument.c_str());
        if (name == "connected") state().peerConnected(peer);
        if (name == "offer") state().offerSlot(peer);
        if (name == "status") state().gotFileStatus(peer, partsOf(argument));
        if (name == "noSuchFile") state().noSuchFile(peer);
        if (name == "gone") state().peerGone(peer);
        if (name == "slotEnded") state().slotEnded(peer);
        if (&peer == stranger) return true;
        if (name == "tryConnect") state().tryConnect();
        if (name == "connectFailed") state().connectFailed(addressOf(1), static_cast<u16>(number));
        if (name == "callbackFailed") state().callbackFailed(static_cast<u32>(number), addressOf(1));
        if (name == "askHashSet") state().askHashSet();
        if (name == "idChanged") state().idChanged();
        if (name == "pause") state().pause();
        if (name == "diskFull") state().diskFull();
        if (name == "complete") state().complete();
        if (name == "drop") state().drop();
        if (name == "stop") state().stop();
        if (name == "reopened") state().partReopened(static_cast<u32>(number));
        return name != "tick" || state().tick(number);
    }
    // The opcodes that wait for a peer; RequestParts as its ranges, in chunks where they begin and bytes.
    static std::string said(TestPeer& peer) {
        std::string text;
        for (const std::string& body : peer.sent()) {
            text += " " + std::to_string(static_cast<u8>(body[0]));
            for (std::size_t i = 0; body[0] == 71 && i < 3; ++i) {
                const u32 start = u32At(body, 17 + 4 * i);
                const u32 end = u32At(body, 29 + 4 * i);
                text +=
                    ":" +
                    (start == end ? "-" : std::to_string(start / chunk) + "+" + std::to_string(end - start));
            }
        }
        return text;
    }
    std::string said() { return said(*partner); }
    // How many bytes of the file are asked for, and how many some source has.
    u32 requested() { return count(countRequested, countDone); }
    u32 offered() { return count(1, countRequested); }
    u32 count(i32 least, i32 below) {
        u32 bytes = 0;
        DLProgress& progress = download->progress();
        const i4_guard guard(progress);
        for (DLProgress::Cursor c; const GapCounter* run = progress.next(c);) {
            if (run->count >= least && run->count < below) bytes += static_cast<u32>(run->end - run->start);
        }
        return bytes;
    }

    Line line;
    Ref<Download> download;
    std::unique_ptr<FileSource> source;
    TestPeer* partner = nullptr;
    TestPeer* stranger = nullptr;
};

// What the source becomes and says, whether chunks stay asked for, and whether the slot is handed on: then,
// as no other download takes it, it is given back by 86.
TEST_F(FileSourceTest, FollowsTheTable) {
    const struct {
        From from;
        const char* parts;
        const char* event;
        const char* outcome;
    } rows[] = {
        {unasked, "-", "tick 10000000", "Unasked"},
        {unasked, "-", "tryConnect", "Waiting for Chunks 88 79"},
        {unasked, "010", "tryConnect", "On Queue 88 84"},
        {unasked, "111", "offer", "Transferring, asked"},
        {unasked, "000", "offer", "Waiting for Chunks 79"},
        {unasked, "-", "offer", "Waiting for Chunks 79"},
        {onQueue, "111", "offer", "Transferring, asked"},
        {onQueue, "-", "offer", "Waiting for Chunks 79"},
        {onQueue, "-", "tryConnect", "On Queue"},
        {onQueue, "-", "tick 600000", "On Queue"},
        {onQueue, "-", "tick 600001", "Unasked"},
        {onQueue, "-", "idChanged", "Unasked"},
        {connecting, "-", "connected", "Waiting for Chunks 88 79"},
        {connecting, "010", "connected", "On Queue 88 84"},
        {connecting, "000", "connected", "Waiting for Chunks 88 79"},
        {connecting, "-", "connectFailed 4662", "Bad Source"},
        {connecting, "-", "connectFailed 4661", "Waiting for Connection"},
        {connecting, "-", "callbackFailed 0", "Bad Source"},
        {connecting, "-", "callbackFailed 9", "Waiting for Connection"},
        {connecting, "-", "tick 240000", "Waiting for Connection"},
        {connecting, "-", "tick 240001", "removed"},
        {partsFirst, "-", "status 011", "On Queue 84"},
        {partsFirst, "-", "status 000", "No Needed Parts"},
        {partsFirst, "-", "status 11", "No Needed Parts"},
        {partsFirst, "-", "status 1111", "No Needed Parts"},
        {partsFirst, "-", "askHashSet", "Waiting for Chunks 81"},
        {partsFirst, "-", "gone", "Bad Source"},
        {partsFirst, "-", "noSuchFile", "Bad Source"},
        {partsFirst, "-", "slotEnded", "Waiting for Chunks"},
        {slotFirst, "-", "status 100", "Transferring, asked"},
        {slotFirst, "-", "status 000", "No Needed Parts, handed on"},
        {slotFirst, "-", "slotEnded", "On Queue"},
        {slotFirst, "-", "drop", "Bad Source, handed on"},
        {slotFirst, "-", "stop", "Bad Source, handed on"},
        {slotFirst, "-", "noSuchFile", "Bad Source, handed on"},
        {slotFirst, "-", "gone", "Bad Source"},
        {transfer, "111", "status 000", "Transferring, asked"},
        {transfer, "111", "slotEnded", "On Queue"},
        {transfer, "111", "gone", "Bad Source 86"},
        {transfer, "111", "noSuchFile", "Bad Source, handed on"},
        {transfer, "111", "pause", "Bad Source 73, handed on"},
        {transfer, "111", "diskFull", "Bad Source 73, handed on"},
        {transfer, "111", "drop", "Bad Source 73, asked, handed on"},
        {transfer, "111", "stop", "Bad Source 73, asked, handed on"},
        {transfer, "111", "complete", "Bad Source 73, asked, handed on"},
        {transfer, "111", "tick 360000", "Transferring, asked"},
        {transfer, "111", "tick 360001", "Unasked"},
        {noNeeded, "000", "tick 1800000", "No Needed Parts"},
        {noNeeded, "000", "tick 1800001", "Unasked"},
        {noNeeded, "101", "reopened 2", "Unasked"},
        {noNeeded, "101", "reopened 1", "No Needed Parts"},
        {bad, "-", "tick 0", "removed"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.from) + " " + row.parts + ", " + row.event);
        put(row.from, row.parts);
        remoteQueueList.clear();
        const std::string before = label();
        said();
        happen(row.event, *stranger);
        EXPECT_EQ(label() + said() + said(*stranger), before) << "somebody else's";
        const bool stays = happen(row.event, *partner);
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
    put(noNeeded, "010");
    happen("tick 1800001", *partner);
    EXPECT_EQ(source->parts(), nullptr) << "asked anew";
}

TEST_F(FileSourceTest, IsReachedOrNot) {
    // One connection below the limit the turn is spent, and nothing else.
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
    source->gotName(std::string(300, 'n').c_str(), *stranger);
    EXPECT_EQ(source->name, "");
    source->gotName(std::string(300, 'n').c_str(), *partner);
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
    EXPECT_TRUE(state().tryConnect());
    EXPECT_EQ(label() + said(), "On Queue");
    // Forgotten under the address that failed.
    put(connecting, "-");
    happen("connectFailed 4661", *partner);
    EXPECT_TRUE(remoteQueueList.isWaiting(User(1)));
    happen("connectFailed 4662", *partner);
    EXPECT_FALSE(remoteQueueList.isWaiting(User(1)));
}

TEST_F(FileSourceTest, ASmallFileIsTakenToBeThere) {
    for (const u32 size : {u32{1000}, PARTSIZE}) {
        begin(size);
        state().tryConnect();
        EXPECT_EQ(label() + said(), "On Queue 88 84");
        ASSERT_TRUE(source->parts());
        EXPECT_EQ(source->parts()->toText(), size == PARTSIZE ? "11" : "1");
        EXPECT_EQ(offered(), size);
        source->clearParts();
        EXPECT_EQ(offered(), 0U);
        EXPECT_TRUE(state().offerSlot(*partner));
        EXPECT_EQ(label(), "Transferring");
        EXPECT_NE(said().find("71:0+"), std::string::npos);
        remoteQueueList.clear();
    }
}

TEST_F(FileSourceTest, ChunksAreAskedForThreeAhead) {
    const auto fill = [this](u32 start, u32 end) {
        DataPacket packet(start, end, std::string(end - start, 'x'));
        download->partial().writeData(packet, start, end);
    };
    put(transfer, "100");
    EXPECT_EQ(said(), " 81 71:0+184320:1+184320:2+184320") << "the part hashes first";
    EXPECT_EQ(requested(), 3 * chunk);
    fill(0, chunk - 1);
    state().gotData(*partner);
    fill(chunk, 2 * chunk);
    state().gotData(*partner);
    EXPECT_EQ(said(), "") << "one out of order waits for those before it";
    fill(chunk - 1, chunk);
    state().gotData(*stranger);
    EXPECT_EQ(said(), "");
    state().gotData(*partner);
    EXPECT_EQ(said(), " 71:1+184320:2+184320:3+184320");
    state().gotData(*partner);
    EXPECT_EQ(said(), " 71:2+184320:3+184320:4+184320");
    {
        FileSource second(User(2), *download);
        second.setParts(partsOf("001"));
        second.setState(std::make_unique<FSS_Transfering>(second, *stranger));
        EXPECT_EQ(said(*stranger), " 81 71:105+5:-:-");
    }
    // What another has asked for isn't free.
    state().gotFileStatus(*partner, partsOf("001"));
    fill(2 * chunk, 5 * chunk);
    for (int i = 0; i < 2; ++i) state().gotData(*partner);
    EXPECT_EQ(label() + said(), "Transferring");
    // With room, it asks for a part that is open again and that it has.
    source->setParts(partsOf("010"));
    state().partReopened(2);
    EXPECT_EQ(said(), "");
    state().partReopened(1);
    EXPECT_NE(said().find(":52+"), std::string::npos);
    // Nothing is left: the slot goes to others.
    put(transfer, "001");
    fill(2 * PARTSIZE, 2 * PARTSIZE + 5);
    state().gotData(*partner);
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
        state().gotData(*partner);
    }
    EXPECT_EQ(said(), "");
    state().tick(1);
    EXPECT_EQ(said(), " 79");
    state().tick(1);
    EXPECT_EQ(said(), "");
}

}  // namespace
