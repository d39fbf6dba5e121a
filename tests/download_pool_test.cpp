// The pool of downloads: who gets in, who may start, what fits onto the disk, what is saved.
#include <gmock/gmock.h>

#include "i4min/file/filesystem.h"
#include "tests/support/Downloads.h"

namespace {

using testing::HasSubstr;
namespace fs = std::filesystem;

using DownloadPool = Downloads;

TEST_F(DownloadPool, TakesEachFileOnceAndNoneThatIsShared) {
    RemoteFile file("a", 1000);
    const Ref<Download> download = add(file, false);
    EXPECT_EQ(log.take(), "Downloading: a\n");
    // It is shared as well by now: the first of the two reasons is told.
    clientApp.shared.add(&file.record);
    dlPool.add(file.record);
    EXPECT_EQ(log.take(), "You are already downloading a.\n");
    download->cancel();
    download->cancel();
    handleMessages();
    EXPECT_EQ(dlPool.count(), 0);
    EXPECT_FALSE(dlPool.findByRecord(file.record.hash));
    dlPool.add(file.record);
    EXPECT_EQ(log.take(), "You already have a.\n");
    clientApp.shared.clear();

    fs::remove_all(temp());
    dlPool.add(file.record);
    EXPECT_THAT(log.take(), HasSubstr("Couldn't create temp file."));
    EXPECT_EQ(dlPool.count(), 0);
}

TEST_F(DownloadPool, FindsALoadedDownloadOnceItIsVerified) {
    const RemoteFile file("a", PARTSIZE + 10);
    {
        const Ref<Download> download = add(file);
        giveHashSet(*download, file.parts);
        give(*download, file, 0, PARTSIZE);
    }
    for (const bool readable : {true, false}) {
        restart();
        const Ref<Download> download = dlPool.findByRecord(file.record.hash);
        ASSERT_TRUE(download);
        EXPECT_FALSE(dlPool.find(file.record.hash));
        EXPECT_FALSE(dlPool.find(MD4Hash())) << "nor by the hash that it still shows";
        download->verify([] { return true; });
        EXPECT_EQ(download->getStatus(), DL_STATUS_HASHING) << "given up";
        const std::string data = dataFileOf(*download);
        if (!readable) fs::resize_file(data, 100);
        log.take();
        download->verify({});
        handleMessages();
        EXPECT_EQ(!!dlPool.find(file.record.hash), readable);
        EXPECT_EQ(download->getStatus(), readable ? DL_STATUS_QUEUED : DL_STATUS_ERROR_HASHING);
        EXPECT_EQ(log.take(), readable ? ""
                                       : "ERROR file couldn't be hashed: a \n"
                                         "Please close the tarnwick and run scandisk.\n");
        EXPECT_EQ(dlPool.count(), readable ? 1 : 0);
        EXPECT_TRUE(exists(data) && exists(data + ".met")) << "whatever it was";
    }
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
    const Ref<Download> lowDownload = add(low);
    const Ref<Download> highDownload = add(RemoteFile("high", 600, 2));
    const Ref<Download> pausedDownload = add(RemoteFile("paused", 5000, 3));
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
    const Ref<Download> download = add(RemoteFile("a", 1000));
    const std::string meta = dataFileOf(*download) + ".met";
    save();
    ASSERT_TRUE(exists(meta));
    fs::remove(meta);
    dlPool.tick(299'999);
    EXPECT_FALSE(exists(meta));
    dlPool.tick(1);
    EXPECT_TRUE(exists(meta));
    EXPECT_EQ(clientApp.partials().count(), 0U);

    // Cancelled while its record is on the way to the disk.
    PartialList records;
    download->partial().saveToList(records, 1, false);
    download->cancel();
    EXPECT_FALSE(exists(meta));
    records.saveToDir(temp().c_str());
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
    clientApp.partials().saveToDir(temp().c_str());
    const std::string data = dataFileOf(*download);
    const bool moved = exists(incoming("a"));
    EXPECT_TRUE(hasBytes(moved ? incoming("a") : data, file.bytes));
    EXPECT_EQ(exists(data + ".met"), !moved);
    EXPECT_EQ(download->completer().state(), Thread::notRunning);
}

}  // namespace
