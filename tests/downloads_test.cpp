// Downloads: their states and the bytes that they request next. The pool: which downloads it accepts, starts
// and saves, and what fits on the disk. Collections, which bring many downloads.
#include <gmock/gmock.h>

#include <functional>
#include <sstream>

#include "download/Collection.h"
#include "download/DLS_Downloading.h"
#include "download/DLS_States.h"
#include "i4min/file/filesystem.h"
#include "tests/support/Downloads.h"
#include "tests/support/systemDisk.h"

namespace {

using testing::HasSubstr;

class DownloadStates : public Downloads {
  protected:
    // A download outside the pool, in DLS_Queued.
    Ref<Download> make(u32 size) {
        Ref<Download> download(new Download(engine.downloadNeeds, dlPool));
        FileMeta record;
        record.setName("a");
        record.setInt(TAG_SIZE, size);
        EXPECT_TRUE(download->create(record));
        return download;
    }
    static void enter(Download& download, Stage stage) {
        const i4_guard guard(download.stateLock());
        static_cast<DownloadBody&>(download).become(stage);
    }
    static std::string stateOf(Download& download) {
        const i4_guard guard(download.stateLock());
        const DownloadState* state = &download.state();
        if (download.partial().isFinished()) return "gone";
        if (dynamic_cast<const DLS_PausedHashing*>(state)) return "PausedHashing";
        const char* names[] = {"",          "Queued", "Downloading", "", "Paused", "DiskFull",
                               "NoSources", "",       "Hashing",     "", "Done"};
        return names[state->status];
    }
    static u32 sourcesOf(Download& download) {
        const i4_guard guard(download.stateLock());
        const LL<FileSource>* sources = download.state().getSources();
        return sources ? sources->count() : 0;
    }
};

// The state that each event leads to, if it changes, and a + if the event posts a message.
TEST_F(DownloadStates, FollowTheTable) {
    const std::function<void(Download&)> events[] = {[](Download& d) { d.pause(); },
                                                     [](Download& d) { d.resume(); },
                                                     [](Download& d) { d.cancel(); },
                                                     [](Download& d) { d.diskFull(); },
                                                     [](Download& d) { d.diskFreed(); },
                                                     [](Download& d) { d.hashingEnded(); },
                                                     [](Download& d) { d.tick(100); },  // no source may start
                                                     [this](Download& d) { dlPool.tick(500), d.tick(100); },
                                                     [](Download& d) { d.tick(1'200'000); },
                                                     [](Download& d) { d.tick(1'200'001); }};
    const Stage stages[] = {Stage::queued,    Stage::downloading, Stage::paused,  Stage::diskFull,
                            Stage::noSources, Stage::completing,  Stage::hashing, Stage::pausedHashing};
    // pause   resume  cancel diskFull diskFreed hashDone tick mayStart    20 min more
    const char* table[] = {
        "Paused   .        gone+  .        .         .        .    Downloading .      .",
        "Paused+  .        gone+  DiskFull .         .        .    .           .      .",
        ".        Queued+  gone+  .        .         .        .    .           .      .",
        "Paused   .        gone+  .        Queued    .        .    .           .      .",
        "Paused   .        gone+  .        .         .        .    .           .      Queued",
        ".        .        .      .        .         .        .    .           .      .",
        ".        .        .      .        .         Queued+  .    .           .      .",
        ".        .        .      .        .         Paused   .    .           .      .",
    };
    for (const Stage& stage : stages) {
        std::istringstream row(table[&stage - stages]);
        std::string to;
        for (const auto& event : events) {
            ASSERT_TRUE(row >> to);
            const Ref<Download> download = make(1000);
            enter(*download, stage);
            const std::string from = stateOf(*download);
            SCOPED_TRACE(from + ", event " + std::to_string(&event - events));
            dlPool.sourceStarted();
            handleMessages();
            log.take();
            event(*download);
            const std::string now = stateOf(*download);
            EXPECT_EQ(now + (handleMessages() ? "+" : ""), to == "." ? from : to);
            EXPECT_EQ(download->isPaused(), (now == "gone" ? from : now) == "Paused");
            const bool refused = from.ends_with("Hashing") && &event == &events[2];
            EXPECT_EQ(log.take(), refused ? "Can't cancel while hashing.\n" : "");
        }
    }
}

TEST_F(DownloadStates, OnlyDownloadingTakesDataAndSources) {
    for (const Stage stage : {Stage::queued, Stage::paused, Stage::diskFull, Stage::completing,
                              Stage::hashing, Stage::downloading}) {
        const Ref<Download> download = make(1000);
        enter(*download, stage);
        giveWrong(*download, 0, 500);
        const bool takes = stateOf(*download) == "Downloading";
        EXPECT_EQ(gaps(download->partial()), takes ? "500-1000" : "0-1000") << stateOf(*download);
        for (const u32 last : {1U, 1U, 2U, 1U}) download->addSource(User(static_cast<u8>(last)));
        EXPECT_EQ(sourcesOf(*download), takes ? 2U : 0U) << "each user once";
        UserMeta user;
        for (user.id = 0x0B000000; takes && user.id < 0x0B000000 + 1000; ++user.id) download->addSource(user);
        EXPECT_EQ(sourcesOf(*download), takes ? 900U : 0U) << "whoever names more";
    }
}

TEST_F(DownloadStates, SpeedIsTheMeanOfEightWindows) {
    const Ref<Download> download = make(PARTSIZE - 1);
    enter(*download, Stage::downloading);
    download->tick(2000);
    giveWrong(*download, 0, 80'040);
    EXPECT_EQ(download->speed, 0.0F) << "a window is longer than two seconds";
    download->tick(1);
    EXPECT_FLOAT_EQ(download->speed, 40.0F / 8);
    giveWrong(*download, 80'040, 160'080);
    for (int window = 0; window < 7; ++window) download->tick(2001);
    EXPECT_FLOAT_EQ(download->speed, 80.0F / 8);
    download->tick(2001);
    EXPECT_FLOAT_EQ(download->speed, 40.0F / 8) << "the oldest has gone";
    download->pause();
    EXPECT_EQ(download->speed, 0.0F);
}

TEST_F(DownloadStates, AvailabilityIsWholeOnlyWhenNothingIsLacking) {
    const Ref<Download> download = make(1000);
    DLProgress& progress = download->progress();
    progress.change(0, 250, 1);
    progress.addRequested(250, 300);
    progress.addDone(500, 999);
    EXPECT_EQ(download->availabilityPercent(), 79);
    progress.change(300, 500, 1);
    EXPECT_EQ(download->availabilityPercent(), 99);
    progress.change(999, 1000, 1);
    EXPECT_EQ(download->availabilityPercent(), 100);
    EXPECT_EQ(make(0)->availabilityPercent(), 100);
    const Ref<Download> large = make(4'294'967'295);
    large->progress().change(1, 4'294'967'295, 1);
    EXPECT_EQ(large->availabilityPercent(), 99);
}

// --- Choice of chunks: the part, the start within it, the length

std::string pick(DLProgress& progress, const std::string& flags) {
    const BoolArray array = partsOf(flags);
    const Chunk chunk = progress.pickChunk({&array, 0, false, true}, 184'320);
    if (chunk.isEmpty()) return "none";
    return std::to_string(chunk.part()) + ":" + std::to_string(chunk.start % PARTSIZE) + "+" +
           std::to_string(chunk.bytes());
}

TEST_F(DownloadStates, TheNextChunkIsTheFirstFreeOfTheRarestPart) {
    const Ref<Download> download = make(4 * PARTSIZE - 1000);
    DLProgress& progress = download->progress();
    const BoolArray sources[] = {partsOf("1111"), partsOf("1101"), partsOf("1001")};
    for (const BoolArray& source : sources) progress.addParts(&source);
    EXPECT_EQ(pick(progress, "1111"), "2:0+184320");
    EXPECT_EQ(pick(progress, "1101"), "1:0+184320");
    EXPECT_EQ(pick(progress, "1101"), "1:184320+184320") << "what somebody fetches is skipped";
    for (int i = 0; i < 4; ++i) progress.removeParts(&sources[0]);
    const BoolArray third = partsOf("0010");
    progress.addParts(&third);
    EXPECT_EQ(pick(progress, "1010"), "0:0+184320") << "no count is below none";
    EXPECT_EQ(pick(progress, ""), "none") << "no flag is set beyond the array";
    const std::string tooLong = "0000" + std::string(65'531, '1');
    const BoolArray tooMany = partsOf(tooLong);
    progress.addParts(&tooMany);
    EXPECT_EQ(pick(progress, tooLong), "none");
}

TEST_F(DownloadStates, TheNextChunkStaysWithinOneRunAndOnePart) {
    const Ref<Download> download = make(2 * PARTSIZE);
    DLProgress& progress = download->progress();
    progress.addDone(0, 1000);
    progress.addRequested(1000, 1500);
    progress.change(1600, 5000, 1);
    EXPECT_EQ(pick(progress, "100"), "0:1500+100") << "where the count changes";
    EXPECT_EQ(pick(progress, "100"), "0:1600+3400");
    progress.addDone(5000, PARTSIZE - 10);
    EXPECT_EQ(pick(progress, "100"), "0:9727990+10") << "where the part ends";
    EXPECT_EQ(pick(progress, "101"), "none") << "nor in the empty part at the end";
    progress.removeRequested(1600, 5000);
    EXPECT_EQ(pick(progress, "100"), "0:1600+3400") << "what was given back";

    const Ref<Download> largest = make(4'294'967'295);
    const std::string last = std::string(441, '0') + "1";
    largest->progress().addDone(441LL * PARTSIZE, 4'294'967'295 - 7);
    EXPECT_EQ(pick(largest->progress(), last),
              "441:" + std::to_string(4'294'967'288 - 441LL * PARTSIZE) + "+7");
    EXPECT_EQ(pick(largest->progress(), last), "none");
}

// --- The pool

using DownloadPool = Downloads;

TEST_F(DownloadPool, TakesEachFileOnceAndNoneThatIsShared) {
    RemoteFile file("a", 1000);
    const Ref<Download> download = add(file, false);
    EXPECT_EQ(log.take(), "Downloading: a\n");
    // It is shared by now, too: the first of the two reasons is printed.
    clientApp.shared.add(&file.record);
    dlPool.add(file.record);
    EXPECT_EQ(log.take(), "You are already downloading a.\n");
    for (int twice = 0; twice < 2; ++twice) download->cancel();
    handleMessages();
    EXPECT_EQ(dlPool.count(), 0);
    dlPool.add(file.record);
    EXPECT_EQ(log.take(), "You already have a.\n");
    clientApp.shared.clear();
    std::filesystem::remove_all(temp());
    dlPool.add(file.record);
    EXPECT_THAT(log.take(), HasSubstr("Couldn't create temp file."));
    EXPECT_EQ(dlPool.count(), 0);
}

TEST_F(DownloadPool, StartsASourceEveryHalfSecondWhileTheLineHasRoom) {
    dlPool.sourceStarted();
    dlPool.tick(499);
    EXPECT_FALSE(dlPool.canStart());
    dlPool.tick(1);
    EXPECT_TRUE(dlPool.canStart());
    const struct {
        f32 limit, told, estimated;  // the user's limit; the line's speed as entered and as estimated
        i32 transfers;
        f32 speed;
        bool expected;
    } rows[] = {{0, 0, 5, 2, 4.4F, true},     {0, 0, 5, 2, 4.6F, false},  // at least half a KB/s
                {0, 100, 5, 2, 89, true},     {0, 100, 5, 2, 91, false},  // a tenth of the line
                {0, 5, 100, 2, 89, true},     {20, 100, 100, 2, 17, true}, {0, 5, 100, 2, 91, false},
                {20, 100, 100, 2, 19, false}, {0, 0, 5, 1, 99, true}};  // one transfer is always allowed
    for (const auto& row : rows) {
        preferences.userMaxDownF = row.limit;
        preferences.lineDown = row.told;
        preferences.maxDownSpeed = row.estimated;
        preferences.curDownSpeed = row.speed;
        for (int i = 0; i < row.transfers; ++i) dlPool.transferStarted();
        dlPool.tick(500);
        EXPECT_EQ(dlPool.canStart(), row.expected) << &row - rows;
        for (int i = 0; i < row.transfers; ++i) dlPool.transferEnded();
    }
}

TEST_F(DownloadPool, GivesTheDiskToHighPriorityFirst) {
    const RemoteFile low("low", 1000, 1);
    const Ref<Download> lowDownload = add(low);
    const Ref<Download> highDownload = add(RemoteFile("high", 600, 2));
    add(RemoteFile("paused", 5000, 3))->pause();
    lowDownload->priority = 0;
    highDownload->priority = 2;
    give(*lowDownload, low, 0, 100);
    const auto fit = [&](u64 bytes) {
        const u64 reserved = dlPool.fitInto(bytes);
        return std::to_string(reserved) + " " + std::to_string(highDownload->getStatus()) + " " +
               std::to_string(lowDownload->getStatus());
    };
    EXPECT_EQ(fit(1500), "1500 2 2") << "a paused one claims nothing";
    EXPECT_EQ(fit(1499), "600 2 5");
    EXPECT_EQ(fit(599), "0 5 5");
    EXPECT_EQ(fit(600), "600 1 5") << "back in the queue, its bytes counted";
    EXPECT_EQ(fit(900), "900 1 1") << "one in the queue claims nothing";
    EXPECT_EQ(fit(i4_disk_free_unknown), "0 1 1");
}

TEST_F(DownloadPool, SavesEveryFiveMinutes) {
    const Ref<Download> download = add(RemoteFile("a", 1000));
    const std::string meta = dataFileOf(*download) + ".met";
    save();
    ASSERT_TRUE(std::filesystem::remove(meta));
    dlPool.tick(299'999);
    EXPECT_FALSE(exists(meta));
    dlPool.tick(1);
    EXPECT_TRUE(exists(meta));

    // Cancelled while its record is being saved.
    PartialList records(engine.core);
    records.add(download->partial().makeRecord(1, false).release());
    download->cancel();
    records.saveToDir(temp().c_str());
    download->partial().dropStaleMeta();
    EXPECT_FALSE(exists(meta));
}

// --- Collections

class Collections : public Downloads {
  protected:
    Collections() {
        collection.self.setName("Set");
        for (const char* name : {"one", "../two"}) {
            auto member = std::make_unique<FileMeta>();
            member->setName(name);
            member->hash = hashOf(static_cast<u8>(name[0]));
            collection.add(member.release());
        }
    }
    // Whether it loads completely, and its members.
    std::string load(const std::string& bytes) {
        writeFile(path, bytes);
        std::string text =
            collection.load(systemDisk(), path.c_str()) == LoadResult::whole ? "whole" : "damaged";
        for (const FileMeta* member : collection.snapshot()) text += std::string(" ") + member->getName();
        return text;
    }

    const std::string path = directory.file("any name");
    Collection collection{engine.core};
};

TEST_F(Collections, AreReadThoughTheirCountsMayLie) {
    ASSERT_EQ(collection.save(systemDisk(), path.c_str()), "");
    std::string saved = contentOf(path);
    // The first word matters only for recognising collections.
    EXPECT_EQ(load(saved.replace(2, 10, "collectio1")), "whole one ../two");
    EXPECT_EQ(load(saved.replace(saved.find('\x0E') + 1, 4, le32(0x7FFFFFFF))), "damaged one ../two");
    std::filesystem::resize_file(path, Collection::maxFile + 1);
    EXPECT_EQ(collection.load(systemDisk(), path.c_str()), LoadResult::damaged);
    EXPECT_EQ(collection.count(), 0U) << "too large to be looked at";
    EXPECT_EQ(collection.load(systemDisk(), directory.file("gone").c_str()), LoadResult::missing);
}

// The hash of its bytes is always another. A large one has part hashes, which aren't those of its parts.
TEST_F(Collections, AreCompleteWhenTheyStoreTheHashThatWasAskedFor) {
    for (const u32 filling : {1U, static_cast<u32>(PARTSIZE)}) {
        collection.self.partHashes = {hashOf(1), hashOf(filling == 1 ? 3 : 2)};
        collection.self.hash = MD4Hash::ofParts(collection.self.partHashes);
        collection.self.setTag("filling", MetaBlob(filling));
        collection.self.setName(filling == 1 ? "small" : "large");
        ASSERT_EQ(collection.save(systemDisk(), path.c_str()), "");
        const std::string whole = contentOf(path);
        const std::string otherHash = std::string(whole).replace(16, 1, "?");
        for (const auto& [bytes, type, isGood] :
             {std::tuple(whole + "x", "Col", false), {otherHash, "Col", false}, {whole, "Col", true}}) {
            RemoteFile file("set", 0);
            file.bytes = bytes;
            file.record.copyFrom(&collection.self);
            file.record.setText(TAG_TYPE, type);
            file.record.setInt(TAG_SIZE, file.size());
            const Ref<Download> download = add(file);
            ASSERT_TRUE(download);
            give(*download, file);
            EXPECT_EQ(completes(download, file), isGood) << filling;
        }
    }
}

TEST_F(Collections, AreStoredAndFetchTheirMembers) {
    collection.self.setName("../../escaped");
    collection.self.hash = hashOf(0xAA);
    ASSERT_TRUE(collection.store());
    const std::string stored = incoming("escaped");
    EXPECT_EQ(collection.self.path, stored.c_str());
    EXPECT_EQ(collection.self.getSize(), std::filesystem::file_size(stored));
    MD4Hash hash;
    std::vector<MD4Hash> parts;
    ASSERT_EQ(MD4Hash::computeFile(hash, systemDisk(), stored.c_str(), parts), HashOutcome::whole);
    EXPECT_EQ(collection.self.hash, hash);
    EXPECT_EQ(load(contentOf(stored)), "whole one ../two");
    EXPECT_EQ(collection.self.hash, hashOf(0xAA)) << "the hash from before";
    collection.fetchAll();
    collection.deleteAll();
    EXPECT_EQ(handleMessages(), 2);
    EXPECT_TRUE(dlPool.find(hashOf('o')) && dlPool.find(hashOf('.'))) << "copies: the members are gone";
}

}  // namespace
