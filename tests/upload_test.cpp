// A running transfer: what it sends for which request, and how fast it thinks it is.
#include "peer/Upload.h"
#include "peer/PartUpload.h"
#include "tests/support/Engine.h"

namespace {

const MD4Hash fileHash = hashOf(0xF0);

struct Range {
    u32 start;
    u32 end;
};

class UploadTest : public Engine {
  protected:
    UploadTest() {
        for (std::size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 7 + i / 256);
        FileMeta& file = shareFile(fileHash, "shared.bin", content);
        to = &peer(1, "user1");
        upload = Ref<Upload>(
            new Upload(i4_open_exact(file.path.c_str(), I4_FILE_READ), *to, "shared.bin", fileHash));
    }

    void ask(Range a, Range b = {0, 0}, Range c = {0, 0}) {
        upload->setRanges({a.start, b.start, c.start}, {a.end, b.end, c.end});
    }
    // Lets packets leave until nothing follows: what was sent, as "start-end start-end", or the opcode of
    // another message. Every byte is compared.
    std::string run() {
        std::string told;
        for (std::string body = to->leave(); !body.empty(); body = to->leave()) {
            if (body[0] != 70) {
                told += "<" + std::to_string(body[0]) + "> ";
                continue;
            }
            const u32 start = readLe32(body, 17);
            const u32 end = readLe32(body, 21);
            told += std::to_string(start) + "-" + std::to_string(end) + " ";
            EXPECT_EQ(body.substr(1, 16), bytesOf(fileHash));
            EXPECT_TRUE(body.substr(25) == content.substr(start, end - start));
        }
        return told;
    }
    // The next packet leaves; its range.
    std::string step() {
        const std::string body = to->leave();
        if (body.empty() || body[0] != 70) return "";
        return std::to_string(readLe32(body, 17)) + "-" + std::to_string(readLe32(body, 21));
    }

    std::string content = std::string(200'000, '\0');
    TestPeer* to = nullptr;
    Ref<Upload> upload;
};

TEST_F(UploadTest, SendsItsRangesInPieces) {
    ask({100, 110}, {1000, 26'000});
    upload->sendNext();
    EXPECT_EQ(run(), "100-110 1000-11240 11240-21480 21480-26000 ");
    EXPECT_EQ(upload->bytesSent, 4 * 30U + 25'010U);
}

TEST_F(UploadTest, RangesThatAreNoneCountAsEmptyAndGoBehindTheOthers) {
    ask({50, 50}, {60, 40}, {70, 80});
    upload->sendNext();
    EXPECT_EQ(run(), "70-80 ");
    EXPECT_TRUE(upload->awaitsRequest());
    ask({5, 5}, {4, 3}, {0, 0});
    upload->sendNext();
    EXPECT_EQ(run(), "");
    EXPECT_FALSE(upload->awaitsRequest());
}

TEST_F(UploadTest, ANewRequestGoesOnWhereTheTransferStands) {
    ask({0, 50'000});
    upload->sendNext();
    EXPECT_EQ(step(), "0-10240");
    ask({5000, 40'000}, {60'000, 60'010});
    EXPECT_EQ(step(), "10240-20480");
    // Its start is no place within it.
    ask({30'720, 35'000}, {60'000, 60'010});
    EXPECT_EQ(step(), "20480-30720");
    EXPECT_EQ(run(), "30720-35000 60000-60010 ");
}

// A limited peer takes what lies in the network's buffers for a while: the uploader waits after each request,
// and each wait counts for itself.
TEST_F(UploadTest, ManyShortWaitsAreNoLongOne) {
    for (u32 start = 0; start < 100; start += 10) {
        ask({start, start + 10});
        upload->sendNext();
        run();
        EXPECT_TRUE(upload->awaitsRequest());
        EXPECT_TRUE(upload->waitOn(300)) << start;
    }
    EXPECT_TRUE(upload->waitOn(600));
    EXPECT_FALSE(upload->waitOn(600));
}

TEST_F(UploadTest, WhatWasJustSentIsNotSentAgain) {
    ask({0, 10}, {10, 20}, {20, 30});
    upload->sendNext();
    // The next packet is made as soon as the last has left: the request comes two ranges late.
    EXPECT_EQ(step(), "0-10");
    ask({0, 10}, {10, 20}, {20, 30});
    EXPECT_EQ(run(), "10-20 20-30 ");
    // And here it comes when all is sent.
    ask({10, 20}, {20, 30}, {30, 40});
    upload->sendNext();
    EXPECT_EQ(run(), "30-40 ");
    // What was sent before, but isn't in front of the last range, is wanted again; so is what never was sent.
    ask({5, 15}, {30, 40}, {20, 30});
    upload->sendNext();
    EXPECT_EQ(run(), "5-15 20-30 ");
    ask({0, 10});
    upload->sendNext();
    EXPECT_EQ(run(), "0-10 ");
}

TEST_F(UploadTest, AReadThatFailsEndsTheTransfer) {
    ASSERT_TRUE(to->hear(opcode(84)));
    to->sent();
    ASSERT_TRUE(to->hear(opcode(
        71, bytesOf(fileHash) + le32(199'990) + le32(0) + le32(0) + le32(200'010) + le32(0) + le32(0))));
    // Back in the queue, and, as the line is free, called again.
    EXPECT_EQ(to->sent(), (std::vector<std::string>{opcode(87), opcode(85)}));
}

TEST_F(UploadTest, StoppedItSendsNothingMore) {
    ask({0, 50'000});
    upload->sendNext();
    EXPECT_EQ(step(), "0-10240");
    upload->stop();
    EXPECT_EQ(run(), "10240-20480 ");
}

TEST_F(UploadTest, TheSpeedIsTheMeanOfEightSamplesAndSetsThePacket) {
    upload->bytesSent = 1'000'000;
    upload->updateSpeed(2000);
    EXPECT_EQ(upload->speed, 0.0F);
    upload->updateSpeed(500);
    EXPECT_FLOAT_EQ(upload->speed, 400.0F / 8);
    for (int i = 0; i < 7; ++i) {
        upload->bytesSent.add(1'000'000);
        upload->updateSpeed(2500);
    }
    EXPECT_FLOAT_EQ(upload->speed, 400.0F);
    ask({0, 200'000});
    upload->sendNext();
    EXPECT_EQ(step(), "0-51200");
    // The count wraps as any counter does; a line of any speed keeps packets to a megabyte.
    upload->bytesSent = 0xFFFFFFFF;
    for (int i = 0; i < 9; ++i) {
        upload->bytesSent.add(0x40000000);
        upload->updateSpeed(2001);
    }
    EXPECT_NEAR(upload->speed, 536'602.0F, 1.0F);
}

// A download that uploads what it has; then the file moves, and the upload with it.
TEST_F(UploadTest, APartUploadFollowsItsFile) {
    const MD4Hash hash = fileHash;
    clientApp.shared.clear();
    const Ref<Download> download = startDownload(hash, "part.bin", 200'000);
    ASSERT_TRUE(download);
    const std::string data = bytesOf(hash) + le32(0) + le32(50'000) + content.substr(0, 50'000);
    download->addSource(User(2));
    i4_ram_file_class packet(const_cast<char*>(data.data()), static_cast<u32>(data.size()), 0);
    packet.seek(16);
    u32 start = 0;
    u32 end = 0;
    {
        const i4_guard guard(download->stateLock());
        download->partial().writeData(packet, start, end);
    }
    ASSERT_EQ(end, 50'000U);
    upload = Ref<Upload>(new PartUpload(*download, *to, hash));
    ask({0, 15'000});
    upload->sendNext();
    EXPECT_EQ(run(), "0-10240 10240-15000 ");
    u8 buffer[10];
    // Whoever fetches has, or will have, parts.
    {
        const i4_guard guard(download->stateLock());
        EXPECT_EQ(download->state().getSources()->count(), 2U);
    }
    ask({49'995, 50'005});
    upload->sendNext();
    EXPECT_EQ(run(), "");
    EXPECT_FALSE(upload->readData(buffer, 10));
}

}  // namespace
