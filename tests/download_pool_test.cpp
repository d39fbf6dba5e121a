// The pool of downloads: who gets in, who may start, what fits onto the disk, what is saved.
#include <gmock/gmock.h>

#include <filesystem>
#include <memory>

#include "i4min/file/filesystem.h"
#include "tests/support/Downloads.h"

namespace {

using testing::HasSubstr;
namespace fs = std::filesystem;

using DownloadPool = Downloads;

TEST_F(DownloadPool, TakesEachFileOnceAndNoneThatIsShared) {
    const RemoteFile file("a", 1000);
    const Ref<Download> download = add(file, false);
    EXPECT_EQ(log.take(), "Downloading: a\n");
    EXPECT_EQ(log.takeEvents(), "+a");
    // It is shared as well by now: the first of the two reasons is told.
    clientApp.shared.add(const_cast<FileMeta*>(&file.record));
    dlPool.add(file.record);
    EXPECT_EQ(log.take(), "You are already downloading a.\n");
    download->cancel();
    download->cancel();
    handleMessages();
    EXPECT_EQ(log.takeEvents(), "-a") << "once";
    EXPECT_EQ(dlPool.count(), 0);
    dlPool.add(file.record);
    EXPECT_EQ(log.take(), "You already have a.\n");
    clientApp.shared.clear();

    fs::remove_all(temp(""));
    dlPool.add(file.record);
    EXPECT_THAT(log.take(), HasSubstr("Couldn't create temp file."));
    EXPECT_EQ(dlPool.count(), 0);
}

TEST_F(DownloadPool, FindsADownloadOnlyOnceItIsVerified) {
    const RemoteFile file("a", 1000);
    add(file);
    save();
    dlPool.stopAll();
    clientApp.partials().deleteAll();
    clientApp.partials().loadFromDir(temp("").c_str());
    clientApp.partials().startDownloads();
    const Ref<Download> download = dlPool.findByRecord(file.record.hash);
    ASSERT_TRUE(download);
    EXPECT_FALSE(dlPool.find(file.record.hash));
    EXPECT_FALSE(dlPool.find(MD4Hash())) << "nor by the hash that it still shows";
    download->verify([] { return false; });
    EXPECT_TRUE(dlPool.find(file.record.hash));
    EXPECT_EQ(download->getStatus(), DL_STATUS_QUEUED);
}

TEST_F(DownloadPool, LetsGoOfADownloadWhosePartsCannotBeRead) {
    const RemoteFile file("a", PARTSIZE + 10);
    {
        const Ref<Download> download = add(file);
        giveHashSet(*download, file.parts);
        give(*download, file, 0, PARTSIZE);
        save();
    }
    dlPool.stopAll();
    clientApp.partials().deleteAll();
    clientApp.partials().loadFromDir(temp("").c_str());
    clientApp.partials().startDownloads();
    const Ref<Download> download = dlPool.findByRecord(file.record.hash);
    ASSERT_TRUE(download);
    const std::string data = temp(download->partial().tempFileName().c_str());
    fs::resize_file(data, 100);
    download->verify([] { return true; });
    EXPECT_EQ(download->getStatus(), DL_STATUS_HASHING) << "given up";
    log.take();
    download->verify({});
    EXPECT_EQ(log.take(), "ERROR file couldn't be hashed: a \nPlease close the tarnwick and run scandisk.\n");
    EXPECT_EQ(download->getStatus(), DL_STATUS_ERROR_HASHING);
    handleMessages();
    EXPECT_EQ(dlPool.count(), 0);
    EXPECT_TRUE(exists(data));
    EXPECT_TRUE(exists(data + ".met"));
}

TEST_F(DownloadPool, StartsASourceEveryHalfSecondWhileTheLineHasRoom) {
    dlPool.sourceStarted();
    EXPECT_FALSE(dlPool.canStart());
    dlPool.tick(499);
    EXPECT_FALSE(dlPool.canStart());
    dlPool.tick(1);
    EXPECT_TRUE(dlPool.canStart());
    const struct {
        f32 limit;      // the user's
        f32 lineDown;   // as he told
        f32 estimated;  // as was seen
        i32 transfers;
        f32 speed;
        bool expected;
    } rows[] = {
        {0, 0, 5, 2, 4.4F, true},    {0, 0, 5, 2, 4.6F, false},  // at least half a KB/s
        {0, 0, 5, 1, 4.6F, true},    {0, 0, 5, 0, 99, true},     // one may always
        {0, 100, 5, 2, 89, true},    {0, 100, 5, 2, 91, false},  // a tenth of the line
        {0, 5, 100, 2, 89, true},    {0, 5, 100, 2, 91, false},
        {20, 100, 100, 2, 17, true}, {20, 100, 100, 2, 19, false},
    };
    for (const auto& row : rows) {
        preferences.userMaxDownF = row.limit;
        preferences.lineDown = row.lineDown;
        preferences.maxDownSpeed = row.estimated;
        preferences.curDownSpeed = row.speed;
        dlPool.transferCount = row.transfers;
        dlPool.tick(500);
        EXPECT_EQ(dlPool.canStart(), row.expected) << &row - rows;
    }
    dlPool.transferCount = 0;
    preferences.lineDown = 0;
}

TEST_F(DownloadPool, GivesTheDiskToHighPriorityFirst) {
    const RemoteFile low("low", 1000, 1);
    const RemoteFile high("high", 600, 2);
    const RemoteFile paused("paused", 5000, 3);
    const Ref<Download> lowDownload = add(low);
    const Ref<Download> highDownload = add(high);
    const Ref<Download> pausedDownload = add(paused);
    pausedDownload->pause();
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
    EXPECT_TRUE(pausedDownload->isPaused());
}

TEST_F(DownloadPool, SavesEveryFiveMinutes) {
    const RemoteFile file("a", 1000);
    const Ref<Download> download = add(file);
    const std::string meta = temp(std::string(download->partial().tempFileName().c_str()) + ".met");
    save();
    ASSERT_TRUE(exists(meta));
    fs::remove(meta);
    dlPool.tick(299'999);
    EXPECT_FALSE(exists(meta));
    dlPool.tick(1);
    EXPECT_TRUE(exists(meta));
    EXPECT_EQ(clientApp.partials().count(), 0u);

    // Cancelled while its record is on the way to the disk.
    PartialList records;
    download->partial().saveToList(records, 1, false);
    download->cancel();
    EXPECT_FALSE(exists(meta));
    records.saveToDir(temp("").c_str());
    download->partial().dropStaleMeta();
    EXPECT_FALSE(exists(meta));
    save();
    EXPECT_FALSE(exists(meta));
}

// The completer reads the file while the program ends: nothing is lost, and nobody waits for the whole of it.
TEST_F(DownloadPool, EndsWithACompleterAtWork) {
    const RemoteFile file("a", 3 * PARTSIZE);
    const Ref<Download> download = add(file);
    give(*download, file);
    dlPool.stopAll();
    clientApp.partials().saveToDir(temp("").c_str());
    const std::string data = temp(download->partial().tempFileName().c_str());
    const bool moved = exists(incoming("a"));
    EXPECT_TRUE(contentOf(moved ? incoming("a") : data) == file.bytes);
    EXPECT_EQ(exists(data + ".met"), !moved);
    EXPECT_EQ(download->completer().state(), Thread::notRunning);
}

}  // namespace
