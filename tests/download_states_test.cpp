// What a download does in each of its states, and which bytes it asks for next.
#include <gmock/gmock.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <sstream>

#include "download/DLS_Downloading.h"
#include "download/DLS_States.h"
#include "tests/support/Downloads.h"

namespace {

using testing::HasSubstr;
namespace fs = std::filesystem;

class DownloadStates : public Downloads {
  protected:
    // A download in no pool, in DLS_Queued.
    Ref<Download> make(u32 size) {
        RemoteFile file("a", size);
        Ref<Download> download(new Download);
        EXPECT_TRUE(download->create(file.record));
        return download;
    }
    template <class State, class... Arguments>
    static void enter(Download& download, Arguments... arguments) {
        const i4_guard guard(download.stateLock());
        download.setState(std::make_unique<State>(download, arguments...));
    }
    static void enter(Download& download, const std::string& name) {
        if (name == "Queued") enter<DLS_Queued>(download);
        if (name == "Downloading") enter<DLS_Downloading>(download);
        if (name == "Paused") enter<DLS_Paused>(download);
        if (name == "DiskFull") enter<DLS_DiskFull>(download);
        if (name == "NoSources") enter<DLS_NoSources>(download);
        if (name == "Done") enter<DLS_Done>(download, DL_STATUS_COMPLETING);
        if (name == "Hashing") enter<DLS_Hashing>(download);
        if (name == "PausedHashing") enter<DLS_PausedHashing>(download);
    }
    static std::string stateOf(Download& download) {
        if (download.partial().isFinished()) return "gone";
        const i4_guard guard(download.stateLock());
        DownloadState* state = &download.state();
        if (dynamic_cast<DLS_Queued*>(state)) return "Queued";
        if (dynamic_cast<DLS_Downloading*>(state)) return "Downloading";
        if (dynamic_cast<DLS_Paused*>(state)) return "Paused";
        if (dynamic_cast<DLS_DiskFull*>(state)) return "DiskFull";
        if (dynamic_cast<DLS_NoSources*>(state)) return "NoSources";
        if (dynamic_cast<DLS_Hashing*>(state)) return "Hashing";
        if (dynamic_cast<DLS_PausedHashing*>(state)) return "PausedHashing";
        return "Done";
    }
    static void allowSource(bool allowed) {
        dlPool.tick(500);
        if (!allowed) dlPool.sourceStarted();
    }
};

// The state that each event leads to, where it isn't the same, and how many messages it posts.
TEST_F(DownloadStates, FollowTheTable) {
    const std::pair<const char*, std::function<void(Download&)>> events[] = {
        {"pause", [](Download& d) { d.pause(); }},
        {"resume", [](Download& d) { d.resume(); }},
        {"cancel", [](Download& d) { d.cancel(); }},
        {"diskFull", [](Download& d) { d.diskFull(); }},
        {"diskFreed", [](Download& d) { d.diskFreed(); }},
        {"hashDone", [](Download& d) { d.hashingEnded(); }},
        {"tick, no source may start", [](Download& d) { d.tick(100); }},
        {"tick, a source may start", [](Download& d) { allowSource(true), d.tick(100); }},
        {"tick of 20 minutes", [](Download& d) { d.tick(1'200'000); }},
        {"tick of more", [](Download& d) { d.tick(1'200'001); }},
    };
    //                pause     resume    cancel  diskFull  diskFreed  hashDone  tick  may start    20 min
    // more
    const char* table[] = {
        "Queued        Paused    .         gone+1  .         .          .         .     Downloading  .       "
        ".",
        "Downloading   Paused+1  .         gone+1  DiskFull  .          .         .     .            .       "
        ".",
        "Paused        .         Queued+1  gone+1  .         .          .         .     .            .       "
        ".",
        "DiskFull      Paused    .         gone+1  .         Queued     .         .     .            .       "
        ".",
        "NoSources     Paused    .         gone+1  .         .          .         .     .            .       "
        "Queued",
        "Done          .         .         .       .         .          .         .     .            .       "
        ".",
        "Hashing       .         .         .       .         .          Queued+1  .     .            .       "
        ".",
        "PausedHashing .         .         .       .         .          Paused    .     .            .       "
        ".",
    };
    for (const char* line : table) {
        std::istringstream row(line);
        std::string from;
        std::string to;
        row >> from;
        for (const auto& [event, act] : events) {
            SCOPED_TRACE(from + ", " + event);
            ASSERT_TRUE(row >> to);
            const Ref<Download> download = make(1000);
            enter(*download, from);
            allowSource(false);
            handleMessages();
            log.take();
            log.takeEvents();
            act(*download);
            const int messages = handleMessages();
            EXPECT_EQ(stateOf(*download) + (messages ? "+" + std::to_string(messages) : ""),
                      to == "." ? from : to);
            const std::string now = download->partial().isFinished() ? from : stateOf(*download);
            EXPECT_EQ(download->isPaused(), now == "Paused");
            const bool refused = from.ends_with("Hashing") && std::string(event) == "cancel";
            EXPECT_EQ(log.take(), refused ? "Can't cancel while hashing.\n" : "");
            EXPECT_EQ(log.takeEvents(), refused ? "+a" : "");
            EXPECT_EQ(download->getStatus() == DL_STATUS_LOOKING, now == "Downloading");
        }
        EXPECT_FALSE(row >> to);
    }
}

TEST_F(DownloadStates, OnlyDownloadingTakesDataAndSources) {
    RemoteFile file("a", 1000);
    UserMeta user;
    user.id = 0x0100007F;
    for (const char* name :
         {"Queued", "Paused", "DiskFull", "NoSources", "Done", "Hashing", "PausedHashing"}) {
        SCOPED_TRACE(name);
        const Ref<Download> download = make(1000);
        enter(*download, name);
        give(*download, file, 0, 500);
        EXPECT_EQ(gaps(download->partial()), "0-1000");
        download->addSource(user);
        const i4_guard guard(download->stateLock());
        EXPECT_EQ(download->state().getSources(), nullptr);
        EXPECT_EQ(download->state().diskNeeded(), 0u);
    }
    const Ref<Download> download = make(1000);
    enter(*download, "Downloading");
    give(*download, file, 0, 500);
    EXPECT_EQ(gaps(download->partial()), "500-1000");
    EXPECT_EQ(download->diskNeeded(), 500u);
    for (const u32 id : {1U, 1U, 2U, 1U}) {
        user.id = 0x01000000 + id;
        download->addSource(user);
    }
    {
        const i4_guard guard(download->stateLock());
        EXPECT_EQ(download->state().getSources()->count(), 2u) << "each user once";
    }
    enter(*download, "DiskFull");
    EXPECT_EQ(download->diskFreed(), 500u) << "what it will still need";
}

TEST_F(DownloadStates, SpeedIsTheMeanOfEightWindows) {
    RemoteFile file("a", 1'000'000);
    const Ref<Download> download = make(file.size());
    enter(*download, "Downloading");
    download->tick(2000);
    give(*download, file, 0, 80'040);
    EXPECT_EQ(download->speed, 0.0F) << "a window is longer than two seconds";
    download->tick(1);
    EXPECT_FLOAT_EQ(download->speed, 40.0F / 8);
    give(*download, file, 80'040, 160'080);
    download->tick(2001);
    EXPECT_FLOAT_EQ(download->speed, 80.0F / 8);
    for (int window = 0; window < 6; ++window) download->tick(2001);
    EXPECT_FLOAT_EQ(download->speed, 80.0F / 8);
    download->tick(2001);
    EXPECT_FLOAT_EQ(download->speed, 40.0F / 8) << "the oldest has gone";
    enter(*download, "DiskFull");
    EXPECT_FLOAT_EQ(download->speed, 40.0F / 8);
    enter(*download, "Paused");
    EXPECT_EQ(download->speed, 0.0F);
}

TEST_F(DownloadStates, AFailedPartCountsAsNoProgress) {
    const RemoteFile file("a", PARTSIZE + 10);
    const Ref<Download> download = add(file);
    giveHashSet(*download, file.parts);
    give(*download, file, 0, PARTSIZE);
    download->tick(2001);
    const f32 before = download->speed;
    giveWrong(*download, PARTSIZE, PARTSIZE + 10);
    download->tick(2001);
    EXPECT_FLOAT_EQ(download->speed, before);
}

TEST_F(DownloadStates, AvailabilityIsWholeOnlyWhenNothingIsLacking) {
    const Ref<Download> download = make(1000);
    DLProgress& progress = download->progress();
    EXPECT_EQ(download->availabilityPercent(), 0);
    progress.addSource({0, 250});
    progress.addRequested(250, 300);
    progress.addDone(500, 999);
    EXPECT_EQ(download->availabilityPercent(), 79);
    progress.addSource({300, 500});
    EXPECT_EQ(download->availabilityPercent(), 99);
    progress.addSource({999, 1000});
    EXPECT_EQ(download->availabilityPercent(), 100);

    RemoteFile none("b", 0);
    const Ref<Download> empty(new Download);
    ASSERT_TRUE(empty->create(none.record));
    EXPECT_EQ(empty->availabilityPercent(), 100);

    none.record.setInt(TAG_SIZE, 4'294'967'295);
    const Ref<Download> large(new Download);
    ASSERT_TRUE(large->create(none.record));
    large->progress().addSource({1, 4'294'967'295});
    EXPECT_EQ(large->availabilityPercent(), 99);
}

TEST_F(DownloadStates, ALockThatIsBusyShowsNoStatus) {
    const Ref<Download> download = make(1000);
    const i4_guard guard(download->stateLock());
    i32 status = -1;
    std::thread([&] { status = download->getStatus(); }).join();
    EXPECT_EQ(status, DL_STATUS_UNREADABLE);
}

// --- which chunk next

BoolArray parts(const std::string& flags) {
    BoolArray array(static_cast<i32>(flags.size()));
    for (std::size_t i = 0; i < flags.size(); ++i) array.set(static_cast<i32>(i), flags[i] == '1');
    return array;
}

class NextChunk : public DownloadStates {
  protected:
    // A file of that many bytes of which nothing is here.
    DLProgress& mapOf(u32 size) {
        RemoteFile file("a", 0);
        file.record.setInt(TAG_SIZE, size);
        download_ = Ref<Download>(new Download);
        EXPECT_TRUE(download_->create(file.record));
        return download_->progress();
    }
    // Of a source with these parts, from the start of its part.
    static std::string pick(DLProgress& progress, const std::string& flags) {
        const BoolArray array = parts(flags);
        u32 start = 0;
        u32 end = 0;
        if (!progress.pickChunk(&array, start, end)) return "none";
        return std::to_string(start / PARTSIZE) + ":" + std::to_string(start % PARTSIZE) + "+" +
               std::to_string(end - start);
    }

    Ref<Download> download_;
};

TEST_F(NextChunk, IsTheFirstFreeOfTheRarestPart) {
    DLProgress& progress = mapOf(4 * PARTSIZE - 1000);
    const BoolArray sources[] = {parts("1111"), parts("1101"), parts("1001")};
    for (const BoolArray& source : sources) progress.addParts(&source);
    EXPECT_EQ(pick(progress, "1111"), "2:0+184320");
    EXPECT_EQ(pick(progress, "1101"), "1:0+184320");
    EXPECT_EQ(pick(progress, "1101"), "1:184320+184320") << "what somebody fetches is skipped";
    progress.removeParts(&sources[0]);
    EXPECT_EQ(pick(progress, "0011"), "2:184320+184320");
    progress.addParts(nullptr);
    progress.removeParts(nullptr);
    u32 start = 7;
    u32 end = 8;
    EXPECT_FALSE(progress.pickChunk(nullptr, start, end));
    EXPECT_EQ(start, 7u);
}

TEST_F(NextChunk, CountsNoPartBelowNone) {
    DLProgress& progress = mapOf(2 * PARTSIZE - 1);
    const BoolArray first = parts("10");
    progress.removeParts(&first);
    progress.removeParts(&first);
    progress.addParts(&first);
    EXPECT_EQ(pick(progress, "11"), "1:0+184320") << "nobody has that one";
}

TEST_F(NextChunk, StaysWithinOneRunAndOnePart) {
    DLProgress& progress = mapOf(2 * PARTSIZE);
    progress.addDone(0, 1000);
    progress.addRequested(1000, 1500);
    progress.addSource({1600, 5000});
    EXPECT_EQ(pick(progress, "100"), "0:1500+100") << "where the count changes";
    EXPECT_EQ(pick(progress, "100"), "0:1600+3400");
    progress.addDone(5000, PARTSIZE - 10);
    EXPECT_EQ(pick(progress, "100"), "0:9727990+10") << "where the part ends";
    EXPECT_EQ(pick(progress, "100"), "none");
    EXPECT_EQ(pick(progress, "001"), "none") << "the empty part at the end";
    progress.removeRequested(1600, 5000);
    EXPECT_EQ(pick(progress, "100"), "0:1600+3400") << "what was given back";
}

TEST_F(NextChunk, ReadsNoFlagBeyondTheArray) {
    DLProgress& progress = mapOf(3 * PARTSIZE - 1);
    EXPECT_EQ(pick(progress, ""), "none");
    progress.addDone(0, PARTSIZE);
    EXPECT_EQ(pick(progress, "1"), "none");
    EXPECT_EQ(pick(progress, "01"), "1:0+184320");
    const BoolArray tooLong = parts("000" + std::string(65'532, '1'));
    progress.addParts(&tooLong);
    u32 start = 0;
    u32 end = 0;
    EXPECT_FALSE(progress.pickChunk(&tooLong, start, end));
}

TEST_F(NextChunk, ReachesTheLastByteOfTheLargestFile) {
    DLProgress& progress = mapOf(4'294'967'295);
    ASSERT_EQ(download_->partial().getPartCount(), 442u);
    const std::string last = std::string(441, '0') + "1";
    progress.addDone(441LL * PARTSIZE, 4'294'967'295 - 7);
    EXPECT_EQ(pick(progress, last), "441:" + std::to_string(4'294'967'295 - 7 - 441ULL * PARTSIZE) + "+7");
    EXPECT_EQ(pick(progress, last), "none");
}

}  // namespace
