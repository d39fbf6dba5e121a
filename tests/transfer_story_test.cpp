// Two clients and an index server: one shares a file, the other finds and downloads it, with and without
// failures.
#include <gtest/gtest.h>

#include "tests/support/Network.h"

namespace {

constexpr std::size_t partSize = 9'728'000;

class TwoClientsStory : public testing::Test {
  protected:
    TwoClientsStory() : seed_("seed", index_), leech_("leech", index_) {}

    // Shares big.bin of `size` bytes; the limit is in KB/s.
    void begin(std::size_t size, const std::string& limit) {
        bytes_ = someBytes(size, 7);
        writeFile(folder_.file("big.bin"), bytes_);
        seed_.start();
        ASSERT_TRUE(seed_.type("dumax 0 " + limit, "Done."));
        seed_.logOn();
        seed_.share(folder_.path(), index_);
        leech_.start();
        leech_.logOn();
    }
    // Waits until this much has arrived, but not everything.
    void waitForKB(u_int kb) {
        ASSERT_TRUE(eventually([&] { return leech_.transferredKB() >= kb; })) << leech_.console().output();
        ASSERT_FALSE(exists(leech_.file("incoming/big.bin")));
    }
    void expectTheFile() {
        EXPECT_TRUE(leech_.hasFinished("big.bin", bytes_))
            << leech_.console().output() << seed_.console().output();
    }

    TemporaryDirectory folder_;
    IndexServerProcess index_;
    Client seed_;
    Client leech_;
    std::string bytes_;
};

TEST_F(TwoClientsStory, OneSharesAndTheOtherFindsAndFetches) {
    const std::pair<std::string, std::string> small[] = {{"grey heron.jpg", someBytes(1, 1)},
                                                         {"grey heron.txt", someBytes(0, 2)},
                                                         {"reed warbler.mp3", someBytes(partSize, 3)}};
    for (const auto& [name, bytes] : small) writeFile(folder_.file(name), bytes);
    begin(30'000'000, "0");
    ASSERT_TRUE(index_.said(" 4 in all")) << "each is published as soon as it is hashed";
    EXPECT_NE(leech_.view("g", "Files: ").find("(open)"), std::string::npos);
    const std::string herons = leech_.search("grey heron");
    EXPECT_TRUE(herons.find("heron.jpg") != std::string::npos &&
                herons.find("heron.txt") != std::string::npos);
    EXPECT_EQ(herons.find("warbler"), std::string::npos) << herons;
    const std::string images = leech_.search("heron -Image");
    EXPECT_NE(images.find("(1) grey heron.jpg\t1\t"), std::string::npos) << images;
    EXPECT_EQ(images.find("(2)"), std::string::npos) << images;
    EXPECT_NE(leech_.search("warbler -Image").find("None."), std::string::npos);

    for (const char* search : {"big", "heron -Image", "warbler"}) leech_.findAndDownload(search);
    expectTheFile();
    for (const std::size_t i : {0U, 2U})
        EXPECT_TRUE(leech_.hasFinished(small[i].first, small[i].second)) << leech_.console().output();
    // Now the downloader shares it too, and it is listed once.
    EXPECT_TRUE(index_.said("(leech) has published"));
    EXPECT_NE(leech_.search("big").find("(1) "), std::string::npos);
    EXPECT_TRUE(leech_.type("d 1", "You already have big.bin."));
    leech_.quit();
    seed_.quit();
}

// --- Transfers with failures

using TransferStory = TwoClientsStory;

// What an orderly shutdown saved survives a later kill, and what arrived in between is downloaded again.
TEST_F(TransferStory, TheDownloaderIsKilledInTheMiddleAndStartedAgain) {
    begin(12'000'000, "4000");
    leech_.findAndDownload("big");
    waitForKB(2'000);
    leech_.quit();
    leech_.start();
    leech_.logOn();
    waitForKB(5'000);
    leech_.kill();
    leech_.start();
    EXPECT_GE(leech_.transferredKB(), 2'000U);
    leech_.logOn();
    expectTheFile();
}

}  // namespace
