// A running transfer: what it sends for which request, and how fast it thinks it is.
#include "peer/Upload.h"
#include "peer/PartUpload.h"
#include "tests/support/Downloads.h"
#include "tests/support/Engine.h"

namespace {

using Range = std::pair<u32, u32>;

constexpr int all = 1000;

class UploadTest : public Engine {
  protected:
    UploadTest() {
        shareFile(hash, "shared.bin", file.bytes);
        begin();
    }
    void begin() {
        std::unique_ptr<i4_file> stream = i4_open_exact(directory.file("shared.bin").c_str(), I4_FILE_READ);
        upload = Ref<Upload>(new Upload(std::move(stream), to, "shared.bin", hash));
    }
    // Asks, and lets that many packets leave: what was sent, as "start-end start-end". Every byte is
    // compared.
    std::string ask(const std::vector<Range>& ranges, int packets = all) {
        u32 starts[3] = {};
        u32 ends[3] = {};
        for (std::size_t i = 0; i < ranges.size(); ++i) {
            starts[i] = ranges[i].first;
            ends[i] = ranges[i].second;
        }
        const bool idle = upload->bytesSent == 0 || upload->awaitsRequest();
        upload->setRanges(starts, ends);
        if (idle) upload->sendNext();
        return leave(packets);
    }
    std::string leave(int packets = all) {
        std::string told;
        for (std::string body; packets > 0 && !(body = to.leave()).empty(); --packets) {
            const u32 start = u32At(body, 17);
            const u32 end = u32At(body, 21);
            EXPECT_EQ(body.substr(0, 17), opcode(70, bytesOf(hash)));
            EXPECT_TRUE(body.substr(25) == file.bytes.substr(start, end - start));
            told += (told.empty() ? "" : " ") + std::to_string(start) + "-" + std::to_string(end);
        }
        return told;
    }

    const RemoteFile file{"shared.bin", 2'000'000};
    const MD4Hash hash = file.record.hash;
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
        // Ranges that are none count as empty, and go behind the others.
        {{{{50, 50}, {60, 40}, {70, 80}}, all, "70-80"}, {{{5, 5}, {4, 3}, {0, 0}}, all, ""}},
        // It goes on where it stands, if that is within the first range; its start is no place within it.
        {{{{0, 50'000}}, 1, "0-10240"},
         {{{5000, 40'000}, {60'000, 60'010}}, 1, "10240-20480"},
         {{{30'720, 35'000}, {60'000, 60'010}}, all, "20480-30720 30720-35000 60000-60010"}},
        // What was just sent isn't sent again, whether the request comes two ranges late or when all is sent.
        {{{{0, 10}, {10, 20}, {20, 30}}, 1, "0-10"},
         {{{0, 10}, {10, 20}, {20, 30}}, all, "10-20 20-30"},
         {{{10, 20}, {20, 30}, {30, 40}}, all, "30-40"},
         // What was sent before, but isn't in front of the last range, is wanted again.
         {{{5, 15}, {30, 40}, {20, 30}}, all, "5-15 20-30"},
         {{{0, 10}}, all, "0-10"}},
    };
    for (const std::vector<Step>& steps : cases) {
        begin();
        for (const Step& step : steps) EXPECT_EQ(ask(step.ask, step.packets), step.sent);
    }
    EXPECT_TRUE(upload->awaitsRequest());
    EXPECT_EQ(upload->bytesSent, 7 * (30U + 10U));
    ask({{5, 5}});
    EXPECT_FALSE(upload->awaitsRequest()) << "asked for nothing, it is at its end";
}

TEST_F(UploadTest, EndsWhenItIsStoppedOrCantRead) {
    EXPECT_EQ(ask({{0, 50'000}}, 1), "0-10240");
    upload->stop();
    EXPECT_EQ(leave(), "10240-20480");
    ASSERT_TRUE(to.hear(opcode(84)));
    to.sent();
    ASSERT_TRUE(to.hear(requestFor(hash, {{1'999'990, 2'000'010}})));
    // Back in the queue, and, as the line is free, called again.
    EXPECT_EQ(to.sent(), (std::vector{opcode(87), opcode(85)}));
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
    upload->sendNext();
    EXPECT_EQ(ask({{0, 2'000'000}}, 1), "0-51200");
    // The count wraps as any counter does; a line of any speed keeps packets to a megabyte.
    upload->bytesSent = 0xFFFFFFFF;
    for (int i = 0; i < 9; ++i) {
        upload->bytesSent.add(0x40000000);
        upload->updateSpeed(2001);
    }
    EXPECT_NEAR(upload->speed, 536'602.0F, 1.0F);
    EXPECT_EQ(leave(2), "51200-102400 102400-1150976");
}

// A download that uploads what it has; then the file moves, and the upload with it.
TEST_F(UploadTest, OfAFileUnderDownloadItSendsWhatIsThere) {
    clientApp.shared.clear();
    const Ref<Download> download = startDownload(hash, "part.bin", file.size());
    const auto arrives = [&](u32 from, u32 until) {
        std::string body = le32(from) + le32(until) + file.bytes.substr(from, until - from);
        i4_ram_file_class packet(body.data(), static_cast<u32>(body.size()), 0);
        const i4_guard guard(download->stateLock());
        download->partial().writeData(packet, from, until);
    };
    arrives(0, 50'000);
    upload = Ref<Upload>(new PartUpload(*download, to, hash));
    {
        const i4_guard guard(download->stateLock());
        EXPECT_EQ(download->state().getSources()->count(), 1U) << "whoever fetches has, or will have, parts";
    }
    EXPECT_EQ(ask({{0, 15'000}}), "0-10240 10240-15000");
    EXPECT_EQ(ask({{49'995, 50'005}}), "") << "not there";

    upload = Ref<Upload>(new PartUpload(*download, to, hash));
    EXPECT_EQ(ask({{0, 20'000}}, 1), "0-10240");
    arrives(50'000, file.size());
    writeFile(directory.file("incoming/part.bin"), "of another download of that name");
    EXPECT_EQ(download->partial().complete({}), PartialFile::Completion::good);
    EXPECT_EQ(leave(), "10240-20000");
    EXPECT_EQ(ask({{1'999'990, 2'000'000}}), "1999990-2000000");
}

}  // namespace
