// A remote client that may hold a file: every state, event and timer, and the chunks that are asked for.
#include "download/FSS_States.h"
#include "download/FileSource.h"
#include "tests/support/Engine.h"

namespace {

const MD4Hash fileHash = hashOf(0xF0);
constexpr u32 chunk = 184'320;

class FileSourceTest : public Engine {
  protected:
    FileSourceTest() {
        preferences.maxCon = 45;
        begin(2 * PARTSIZE + 5);
        partner = &peer(1, "user1");
    }
    ~FileSourceTest() override { source.reset(); }

    void begin(u32 size) {
        source.reset();
        FileMeta file;
        file.hash = fileHash;
        file.setName("file.bin");
        file.setInt(TAG_SIZE, size);
        download = Ref<Download>(new Download);
        ASSERT_TRUE(download->create(file));
        source = std::make_unique<FileSource>(User(1), *download);
    }
    FileSourceState& state() { return source->state(); }
    std::string label() { return state().label; }
    static BoolArray parts(const std::string& drawn) {
        BoolArray array(static_cast<i32>(drawn.size()));
        for (std::size_t i = 0; i < drawn.size(); ++i) array.set(static_cast<i32>(i), drawn[i] == '1');
        return array;
    }
    template <class State, class... Arguments>
    void put(Arguments&... arguments) {
        source->setState(std::make_unique<State>(*source, arguments...));
        partner->sent();
    }
    // The bytes are here.
    void fill(u32 start, u32 end) {
        const std::string data = le32(start) + le32(end) + std::string(end - start, 'x');
        i4_ram_file_class packet(const_cast<char*>(data.data()), static_cast<u32>(data.size()), 0);
        u32 from = 0;
        u32 to = 0;
        download->partial().writeData(packet, from, to);
        EXPECT_EQ(to, end);
    }
    // The opcodes that wait for the partner; RequestParts as its ranges, in units of `chunk` where they are
    // whole.
    std::string said(TestPeer& peer) {
        std::string text;
        for (const std::string& body : peer.sent()) {
            text += std::to_string(static_cast<u8>(body[0]));
            for (std::size_t i = 0; body[0] == 71 && i < 3; ++i) {
                const u32 start = readLe32(body, 17 + 4 * i);
                const u32 end = readLe32(body, 29 + 4 * i);
                text += start == end
                            ? " -"
                            : " " + std::to_string(start / chunk) + "+" + std::to_string(end - start);
            }
            text += ";";
        }
        return text;
    }
    std::string said() { return said(*partner); }
    // Whether message 23 waits: the slot is offered on, and as nobody takes it, given back.
    bool slotLeft() {
        while (messageQ.process()) continue;
        return said().find("86;") != std::string::npos;
    }
    u32 requested() {
        u32 bytes = 0;
        DLProgress& progress = download->progress();
        const i4_guard guard(progress);
        for (DLProgress::Cursor c; const GapCounter* run = progress.next(c);) {
            if (run->count >= countRequested && run->count < countDone)
                bytes += static_cast<u32>(run->end - run->start);
        }
        return bytes;
    }
    u32 offered() {
        u32 bytes = 0;
        DLProgress& progress = download->progress();
        const i4_guard guard(progress);
        for (DLProgress::Cursor c; const GapCounter* run = progress.next(c);) {
            if (run->count % countRequested > 0) bytes += static_cast<u32>(run->end - run->start);
        }
        return bytes;
    }

    Ref<Download> download;
    std::unique_ptr<FileSource> source;
    TestPeer* partner = nullptr;
};

TEST_F(FileSourceTest, AnUnaskedSourceIsReachedOrNot) {
    EXPECT_EQ(label(), "Unasked");
    EXPECT_TRUE(state().tick(10'000'000));
    // One connection below the limit the turn is spent, and nothing else.
    clientApp.socketPool.count = preferences.maxCon - 1;
    EXPECT_TRUE(state().tryConnect());
    EXPECT_EQ(label(), "Unasked");
    clientApp.socketPool.count = 0;
    // It is connected: name and parts are asked.
    EXPECT_TRUE(state().tryConnect());
    EXPECT_EQ(label(), "Waiting for Chunks");
    EXPECT_EQ(said(), "88;79;");

    source = std::make_unique<FileSource>(User(99), *download);
    EXPECT_TRUE(state().tryConnect());
    EXPECT_EQ(label(), "Waiting for Connection");

    // Ourselves, and two who can't reach each other.
    source = std::make_unique<FileSource>(User(100), *download);
    EXPECT_TRUE(state().tryConnect());
    EXPECT_EQ(label(), "Bad Source");
    EXPECT_FALSE(state().tick(0));
    preferences.setClientId(5);
    UserMeta low;
    low.id = 77;
    source = std::make_unique<FileSource>(low, *download);
    EXPECT_TRUE(state().tryConnect());
    EXPECT_EQ(label(), "Bad Source");
}

TEST_F(FileSourceTest, APlaceInItsQueueKeepsForHalfAnHour) {
    const u32 asked = 1000;
    remoteQueueList.note(*partner, asked);
    EXPECT_EQ(said(), "84;");
    EXPECT_TRUE(remoteQueueList.isWaiting(User(1), asked + 29 * 60'000));
    EXPECT_TRUE(remoteQueueList.isWaiting(User(1), asked + 1'799'999));
    EXPECT_FALSE(remoteQueueList.isWaiting(User(1), asked + 1'800'000));
    UserMeta low;
    low.id = highestLowId;
    EXPECT_FALSE(remoteQueueList.isWaiting(low, asked));
    // Forgotten under the address that failed, not under another.
    remoteQueueList.forgetAddress(addressOf(1), 4661);
    EXPECT_TRUE(remoteQueueList.isWaiting(User(1), asked));
    remoteQueueList.forgetAddress(addressOf(1), 4662);
    EXPECT_FALSE(remoteQueueList.isWaiting(User(1), asked));
    remoteQueueList.release(*partner);
    EXPECT_EQ(said(), "86;");

    remoteQueueList.note(*partner);
    EXPECT_TRUE(state().tryConnect());
    EXPECT_EQ(label(), "On Queue");
    EXPECT_FALSE(state().tryConnect());
    EXPECT_TRUE(state().tick(600'000));
    EXPECT_EQ(label(), "On Queue");
    EXPECT_TRUE(state().tick(1));
    EXPECT_EQ(label(), "Unasked");
    put<FSS_OnQueue>();
    state().idChanged();
    EXPECT_EQ(label(), "Unasked");
}

TEST_F(FileSourceTest, AConnectionComesFailsOrRunsOut) {
    put<FSS_WaitForConnection>();
    EXPECT_TRUE(state().tick(240'000));
    EXPECT_FALSE(state().tick(1));
    EXPECT_FALSE(state().connectFailed(addressOf(1), 4661));
    EXPECT_FALSE(state().connectFailed(addressOf(2), 4662));
    EXPECT_FALSE(state().callbackFailed(addressOf(9), addressOf(1)));
    state().peerConnected(peer(2));
    EXPECT_EQ(label(), "Waiting for Connection");
    remoteQueueList.note(*partner);
    EXPECT_TRUE(state().connectFailed(addressOf(1), 4662));
    EXPECT_EQ(label(), "Bad Source");
    EXPECT_FALSE(remoteQueueList.isWaiting(User(1)));
    put<FSS_WaitForConnection>();
    EXPECT_TRUE(state().callbackFailed(0, addressOf(1)));
    EXPECT_EQ(label(), "Bad Source");

    put<FSS_WaitForConnection>();
    source->name = "known already";
    state().peerConnected(*partner);
    EXPECT_EQ(label(), "Waiting for Chunks");
    EXPECT_EQ(said(), "79;");
    put<FSS_WaitForConnection>();
    source->setParts(parts("010"));
    state().peerConnected(*partner);
    EXPECT_EQ(label(), "On Queue");
    EXPECT_EQ(said(), "84;");
    put<FSS_WaitForConnection>();
    source->setParts(parts("000"));
    state().peerConnected(*partner);
    EXPECT_EQ(label(), "Waiting for Chunks");
}

TEST_F(FileSourceTest, TheStatusDecidesBeforeQueueing) {
    TestPeer& other = peer(2);
    put<FSS_WaitForChunksBQ>(*partner);
    EXPECT_TRUE(state().askHashSet());
    EXPECT_EQ(said(), "81;");
    EXPECT_FALSE(state().gotFileStatus(other, parts("111")));
    state().peerGone(other);
    state().noSuchFile(other);
    EXPECT_EQ(label(), "Waiting for Chunks");
    EXPECT_TRUE(state().gotFileStatus(*partner, parts("011")));
    EXPECT_EQ(label() + " " + said(), "On Queue 84;");
    EXPECT_EQ(offered(), PARTSIZE + 5);
    for (const char* none : {"000", "11", "1111", ""}) {
        put<FSS_WaitForChunksBQ>(*partner);
        EXPECT_TRUE(state().gotFileStatus(*partner, parts(none)));
        EXPECT_EQ(label() + " " + said(), "No Needed Parts ") << none;
    }
    put<FSS_WaitForChunksBQ>(*partner);
    state().peerGone(*partner);
    EXPECT_EQ(label(), "Bad Source");
    put<FSS_WaitForChunksBQ>(*partner);
    state().noSuchFile(*partner);
    EXPECT_EQ(label(), "Bad Source");
    EXPECT_FALSE(slotLeft());
}

TEST_F(FileSourceTest, AnOfferedSlotIsTakenUpOrHandedOn) {
    for (const bool queued : {false, true}) {
        const auto again = [&](const char* drawn) {
            source->clearParts();
            if (drawn) source->setParts(parts(drawn));
            if (queued) {
                put<FSS_OnQueue>();
            } else {
                put<FSS_Unasked>();
            }
        };
        again("111");
        EXPECT_FALSE(state().offerSlot(peer(2)));
        EXPECT_TRUE(state().offerSlot(*partner));
        EXPECT_EQ(label(), "Transferring");
        EXPECT_EQ(dlPool.transferCount, 1);
        for (const char* drawn : {"000", static_cast<const char*>(nullptr)}) {
            again(drawn);
            EXPECT_TRUE(state().offerSlot(*partner));
            EXPECT_EQ(label() + " " + said(), "Waiting for Chunks 79;");
        }
    }
    EXPECT_EQ(dlPool.transferCount, 0);
    state().slotEnded(*partner);
    EXPECT_EQ(label(), "On Queue");
    for (const bool stops : {false, true}) {
        put<FSS_WaitForChunks>(*partner);
        stops ? state().stop() : state().drop();
        EXPECT_EQ(label(), "Bad Source");
        EXPECT_TRUE(slotLeft());
    }
    put<FSS_WaitForChunks>(*partner);
    EXPECT_TRUE(state().gotFileStatus(*partner, parts("000")));
    EXPECT_EQ(label(), "No Needed Parts");
    EXPECT_TRUE(slotLeft());
    put<FSS_WaitForChunks>(*partner);
    EXPECT_TRUE(state().gotFileStatus(*partner, parts("100")));
    EXPECT_EQ(label(), "Transferring");
    put<FSS_WaitForChunks>(*partner);
    state().noSuchFile(*partner);
    EXPECT_EQ(label(), "Bad Source");
    EXPECT_TRUE(slotLeft());
    put<FSS_WaitForChunks>(*partner);
    state().peerGone(*partner);
    EXPECT_EQ(label(), "Bad Source");
    EXPECT_FALSE(slotLeft());
}

TEST_F(FileSourceTest, ASmallFileIsTakenToBeThere) {
    for (const u32 size : {u32{1000}, PARTSIZE}) {
        begin(size);
        put<FSS_WaitForConnection>();
        state().peerConnected(*partner);
        EXPECT_EQ(label() + " " + said(), "On Queue 88;84;");
        ASSERT_TRUE(source->parts());
        EXPECT_EQ(source->parts()->toText(), size == PARTSIZE ? "11" : "1");
        EXPECT_EQ(offered(), size);
        source->clearParts();
        EXPECT_EQ(offered(), 0U);
        EXPECT_TRUE(state().offerSlot(*partner));
        EXPECT_EQ(label(), "Transferring");
        EXPECT_NE(said().find("71 0+"), std::string::npos);
    }
}

TEST_F(FileSourceTest, ChunksAreAskedForThreeAhead) {
    source->setParts(parts("100"));
    source->setState(std::make_unique<FSS_Transfering>(*source, *partner));
    // The part hashes first, as they aren't known.
    EXPECT_EQ(said(), "81;71 0+184320 1+184320 2+184320;");
    EXPECT_EQ(requested(), 3 * chunk);
    fill(0, chunk - 1);
    state().gotData(*partner);
    // Out of order it waits for those before it.
    fill(chunk, 2 * chunk);
    state().gotData(*partner);
    EXPECT_EQ(said(), "");
    fill(chunk - 1, chunk);
    state().gotData(peer(2));
    EXPECT_EQ(said(), "");
    state().gotData(*partner);
    EXPECT_EQ(said(), "71 1+184320 2+184320 3+184320;");
    state().gotData(*partner);
    EXPECT_EQ(said(), "71 2+184320 3+184320 4+184320;");
    // A status with fewer parts changes nothing of what was asked for.
    EXPECT_TRUE(state().gotFileStatus(*partner, parts("000")));
    EXPECT_EQ(requested(), 3 * chunk);
    fill(2 * chunk, 5 * chunk);
    for (int i = 0; i < 2; ++i) state().gotData(*partner);
    EXPECT_EQ(label() + said(), "Transferring");
    state().gotData(*partner);
    EXPECT_EQ(label(), "No Needed Parts");
    EXPECT_TRUE(slotLeft());
    EXPECT_TRUE(state().tick(1'800'000));
    EXPECT_EQ(label(), "No Needed Parts");
    EXPECT_TRUE(state().tick(1));
    EXPECT_EQ(label(), "Unasked");
    EXPECT_EQ(source->parts(), nullptr);
}

TEST_F(FileSourceTest, NothingFreeIsNotAskedFor) {
    source->setParts(parts("001"));
    FileSource other(User(2), *download);
    other.setParts(parts("001"));
    put<FSS_Transfering>(*partner);
    EXPECT_EQ(requested(), 5U);
    TestPeer& second = peer(2);
    other.setState(std::make_unique<FSS_Transfering>(other, second));
    EXPECT_STREQ(other.state().label, "No Needed Parts");
    EXPECT_EQ(said(second), "81;");
}

TEST_F(FileSourceTest, ATransferEndsInManyWays) {
    const struct {
        const char* event;
        void (*happen)(FileSourceState& state, TestPeer& peer);
        const char* label;
        const char* said;
        bool givesBack;
        bool handsOn;
    } rows[] = {
        {"slotEnded", [](FileSourceState& s, TestPeer& p) { s.slotEnded(p); }, "On Queue", "", true, false},
        {"peerGone", [](FileSourceState& s, TestPeer& p) { s.peerGone(p); }, "Bad Source", "86;", true,
         false},
        {"noSuchFile", [](FileSourceState& s, TestPeer& p) { s.noSuchFile(p); }, "Bad Source", "", true,
         true},
        {"pause", [](FileSourceState& s, TestPeer&) { s.pause(); }, "Bad Source", "73;", true, true},
        {"diskFull", [](FileSourceState& s, TestPeer&) { s.diskFull(); }, "Bad Source", "73;", true, true},
        {"drop", [](FileSourceState& s, TestPeer&) { s.drop(); }, "Bad Source", "73;", false, true},
        {"stop", [](FileSourceState& s, TestPeer&) { s.stop(); }, "Bad Source", "73;", false, true},
        {"complete", [](FileSourceState& s, TestPeer&) { s.complete(); }, "Bad Source", "73;", false, true},
        {"stall", [](FileSourceState& s, TestPeer&) { s.tick(360'001); }, "Unasked", "", true, false},
    };
    TestPeer& other = peer(2);
    for (const auto& row : rows) {
        begin(2 * PARTSIZE + 5);
        source->setParts(parts("111"));
        put<FSS_Transfering>(*partner);
        EXPECT_FALSE(state().slotEnded(other));
        EXPECT_FALSE(state().gotFileStatus(other, parts("111")));
        state().peerGone(other);
        state().noSuchFile(other);
        EXPECT_TRUE(state().tick(360'000));
        EXPECT_EQ(label() + said(), "Transferring") << row.event;
        row.happen(state(), *partner);
        EXPECT_EQ(label(), row.label) << row.event;
        EXPECT_EQ(said(), row.said) << row.event;
        EXPECT_EQ(requested() == 0, row.givesBack) << row.event;
        EXPECT_EQ(slotLeft(), row.handsOn) << row.event;
        EXPECT_EQ(dlPool.transferCount, 0) << row.event;
    }
}

TEST_F(FileSourceTest, PartsAreAskedForAgainWhileItTransfers) {
    source->setParts(parts("111"));
    put<FSS_Transfering>(*partner);
    for (int i = 0; i < 6; ++i) {
        state().tick(300'000);
        state().gotData(*partner);
    }
    EXPECT_EQ(said(), "");
    state().tick(1);
    EXPECT_EQ(said(), "79;");
    state().tick(1);
    EXPECT_EQ(said(), "");
}

TEST_F(FileSourceTest, AReopenedPartWakesWhoHasIt) {
    source->setParts(parts("001"));
    put<FSS_NoNeededParts>();
    state().partReopened();
    EXPECT_EQ(label(), "Unasked");
    source->setParts(parts("000"));
    put<FSS_NoNeededParts>();
    state().partReopened();
    EXPECT_EQ(label(), "No Needed Parts");
    // One with room in its slots asks at once.
    source->setParts(parts("001"));
    put<FSS_Transfering>(*partner);
    source->setParts(parts("101"));
    state().partReopened();
    EXPECT_EQ(said().substr(0, 5), "71 10");
    state().partReopened();
    EXPECT_EQ(said(), "");
}

TEST_F(FileSourceTest, WhatASourceOffersIsCountedOnce) {
    source->setParts(parts("110"));
    EXPECT_EQ(offered(), 2 * PARTSIZE);
    source->setParts(parts("011"));
    EXPECT_EQ(offered(), PARTSIZE + 5);
    source.reset();
    EXPECT_EQ(offered(), 0U);
}

}  // namespace
