// Two clients and an index server: what one shares the other finds and fetches.
#include <gtest/gtest.h>

#include "tests/support/Network.h"

namespace {

class TwoClientsStory : public testing::Test {
  protected:
    TwoClientsStory() : seed_("seed", index_), leech_("leech", index_) {}

    void begin() {
        seed_.start();
        leech_.start();
        seed_.logOn();
        seed_.share(folder_.path(), index_);
        leech_.logOn();
    }

    // What `vr` prints after a search.
    std::string found(const std::string& search) {
        EXPECT_TRUE(leech_.type("s " + search, "Results returned\n"));
        return leech_.view("vr", "> ");
    }

    TemporaryDirectory folder_;
    IndexServerProcess index_;
    Client seed_;
    Client leech_;
};

TEST_F(TwoClientsStory, OnePublishesAndTheOtherFinds) {
    writeFile(folder_.file("grey heron.jpg"), someBytes(1000, 1));
    writeFile(folder_.file("grey heron.txt"), someBytes(0, 2));
    writeFile(folder_.file("reed warbler.mp3"), someBytes(70'000, 3));
    begin();

    const std::string both = found("grey heron");
    EXPECT_NE(both.find("grey heron.jpg"), std::string::npos) << both;
    EXPECT_NE(both.find("grey heron.txt"), std::string::npos) << both;
    EXPECT_EQ(both.find("reed warbler.mp3"), std::string::npos) << both;
    const std::string images = found("heron -Image");
    EXPECT_NE(images.find("(1) grey heron.jpg\t1000\t"), std::string::npos) << images;
    EXPECT_EQ(images.find("(2)"), std::string::npos) << images;
    EXPECT_NE(found("warbler -Image").find("None."), std::string::npos);
    EXPECT_NE(leech_.view("g", "Files: ").find("(open)"), std::string::npos);
}

TEST_F(TwoClientsStory, AFileOfFourPartsArrivesWhole) {
    const std::string bytes = someBytes(30'000'000, 4);
    writeFile(folder_.file("big.bin"), bytes);
    begin();
    leech_.findAndDownload("big");
    EXPECT_TRUE(leech_.hasFinished("big.bin", bytes)) << leech_.console().output();
    // Now it's shared from there too, and not a second time on the list.
    EXPECT_TRUE(index_.said("(leech) has published"));
    EXPECT_TRUE(leech_.type("d 1", "You already have big.bin."));
    leech_.quit();
    seed_.quit();
}

TEST_F(TwoClientsStory, SmallFilesArriveWhole) {
    const std::vector<std::size_t> sizes{1, 737'280, 9'727'999, 9'728'000, 9'728'001};
    for (const std::size_t size : sizes) {
        writeFile(folder_.file("file" + std::to_string(size) + ".bin"), someBytes(size, 5));
    }
    begin();
    for (const std::size_t size : sizes) leech_.findAndDownload("file" + std::to_string(size));
    for (const std::size_t size : sizes) {
        EXPECT_TRUE(leech_.hasFinished("file" + std::to_string(size) + ".bin", someBytes(size, 5)))
            << size << leech_.console().output() << seed_.console().output();
    }
}

}  // namespace
