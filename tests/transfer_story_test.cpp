// Transfers that don't go smoothly, and transfers between several clients.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "i4min/file/file.h"
#include "meta/FileMeta.h"
#include "tests/support/Network.h"

namespace {

constexpr std::size_t fileSize = 30'000'000;
constexpr std::size_t partSize = 9'728'000;

class TransferStory : public testing::Test {
  protected:
    TransferStory() : seed_("seed", index_), leech_("leech", index_), bytes_(someBytes(fileSize, 7)) {
        writeFile(folder_.file("big.bin"), bytes_);
    }

    void begin() {
        seed_.start();
        seed_.logOn();
        seed_.share(folder_.path(), index_);
        leech_.start();
        leech_.logOn();
        leech_.findAndDownload("big");
    }

    // Until this much has come in, and the rest hasn't.
    void waitForKB(u_int kb) {
        ASSERT_TRUE(eventually([&] { return leech_.transferredKB() >= kb; })) << leech_.console().output();
        ASSERT_FALSE(std::filesystem::exists(leech_.file("incoming/big.bin")));
    }

    TemporaryDirectory folder_;
    IndexServerProcess index_;
    Client seed_;
    Client leech_;
    const std::string bytes_;
};

TEST_F(TransferStory, TheSeedIsKilledInTheMiddleAndStartedAgain) {
    seed_.start();
    ASSERT_TRUE(seed_.type("dumax 0 6000", "Done."));
    seed_.quit();
    begin();
    waitForKB(6'000);
    seed_.kill();
    seed_.start();
    seed_.logOn();
    ASSERT_TRUE(index_.said("(seed) has published", 2)) << "what the leech asks for from now on is there";
    ASSERT_TRUE(leech_.type("m 1 p", "> "));
    ASSERT_TRUE(eventually([&] { return leech_.view("vd", "Total: ").find("Paused") != std::string::npos; }));
    ASSERT_TRUE(leech_.type("m 1 r", "> "));
    EXPECT_TRUE(leech_.hasFinished("big.bin", bytes_)) << leech_.console().output();
}

// What an orderly end has saved survives the kill that comes later, and what came in between is fetched
// again.
TEST_F(TransferStory, TheDownloaderIsKilledInTheMiddleAndStartedAgain) {
    seed_.start();
    ASSERT_TRUE(seed_.type("dumax 0 6000", "Done."));
    seed_.quit();
    begin();
    waitForKB(4'000);
    leech_.quit();
    leech_.start();
    leech_.logOn();
    waitForKB(12'000);
    leech_.kill();
    leech_.start();
    EXPECT_GE(leech_.transferredKB(), 4'000U);
    leech_.logOn();
    EXPECT_TRUE(leech_.hasFinished("big.bin", bytes_)) << leech_.console().output();
}

TEST_F(TransferStory, ACorruptPartIsFetchedAgain) {
    seed_.start();
    seed_.logOn();
    seed_.share(folder_.path(), index_);
    // From now on the seed offers other bytes than those that it has hashed.
    std::fstream shared(folder_.file("big.bin"), std::ios::in | std::ios::out | std::ios::binary);
    shared.seekp(partSize + 1'000) << "other bytes";
    shared.flush();
    leech_.start();
    leech_.logOn();
    leech_.findAndDownload("big");
    ASSERT_TRUE(leech_.console().waitFor("Corruption found")) << leech_.console().output();
    shared.seekp(partSize + 1'000) << bytes_.substr(partSize + 1'000, 11);
    shared.flush();
    EXPECT_TRUE(leech_.hasFinished("big.bin", bytes_)) << leech_.console().output();
}

// --- Several clients, each with an address of its own

class ManyClientsStory : public testing::Test {
  protected:
    void SetUp() override {
        if (!network_.usable()) GTEST_SKIP() << network_.why();
        index_ = std::make_unique<IndexServerProcess>(network_.host(0));
    }

    std::unique_ptr<Client> client(const std::string& name, std::size_t host) {
        return std::make_unique<Client>(name, *index_, network_.host(host));
    }

    NamespaceNetwork network_{6};
    std::unique_ptr<IndexServerProcess> index_;
    const std::string bytes_ = someBytes(fileSize, 8);
};

// Lays a paused download into the client's temp directory, which has this one part.
void layPart(const Client& client, const std::string& bytes, const FileMeta& whole, std::size_t part) {
    const std::size_t start = part * partSize;
    const std::size_t end = std::min(start + partSize, bytes.size());
    std::string data(bytes.size(), '\0');
    data.replace(start, end - start, bytes, start, end - start);
    writeFile(client.file("temp/1.part"), data);

    FileMeta record;
    record.copyFrom(&whole);
    record.setText(TAG_TEMPFILENAME, "1.part");
    record.setInt(TAG_STATE, 1);
    const auto addGap = [&](u32 number, std::size_t from, std::size_t to) {
        const u32 ends[2] = {static_cast<u32>(from), static_cast<u32>(to)};
        const TagIndex names[2] = {TAG_GAP_START, TAG_GAP_END};
        for (int i = 0; i < 2; ++i) {
            const std::string name = tagTable[names[i]].wireName + std::to_string(number);
            record.addTag(MetaTag::makeTag(META_TAG_INT, name.c_str(), &ends[i]));
        }
    };
    u32 gaps = 0;
    if (start > 0) addGap(gaps++, 0, start);
    if (end < bytes.size()) addGap(gaps, end, bytes.size());
    const std::unique_ptr<i4_file> file =
        i4_open_exact(client.file("temp/1.part.met").c_str(), I4_FILE_WRITE | I4_FILE_TRUNCATE);
    file->write_8(0xE0);
    EXPECT_TRUE(record.toDisk(*file));
}

// Nobody reaches one of the two: the server gives it a low ID, and the other one's calls go through the
// server.
TEST_F(ManyClientsStory, AClientBehindAFirewallGivesAndFetches) {
    for (const std::size_t hidden : {0U, 1U}) {
        TemporaryDirectory folder;
        writeFile(folder.file("big.bin"), bytes_);
        const std::unique_ptr<Client> both[] = {client("seed", 1), client("leech", 2)};
        if (!network_.shutPort(1 + hidden, both[hidden]->doorPort()))
            GTEST_SKIP() << "a port can't be shut here: ip refuses a rule for it";
        Client& seed = *both[0];
        Client& leech = *both[1];
        seed.start();
        seed.logOn();
        seed.share(folder.path(), *index_);
        leech.start();
        leech.logOn();
        for (std::size_t i = 0; i < 2; ++i) {
            const char* state = i == hidden ? "(firewalled)" : "(open)";
            EXPECT_NE(both[i]->view("g", "Files: ").find(state), std::string::npos);
        }
        leech.findAndDownload("big");
        EXPECT_TRUE(leech.hasFinished("big.bin", bytes_)) << hidden << leech.console().output();
    }
}

TEST_F(ManyClientsStory, FourClientsWithOnePartEachGiveTheWholeToOne) {
    FileMeta whole;
    TemporaryDirectory folder;
    writeFile(folder.file("big.bin"), bytes_);
    ASSERT_EQ(MD4Hash::computeFile(whole.hash, folder.file("big.bin").c_str(), whole.partHashes),
              HashOutcome::whole);
    whole.setName("big.bin");
    whole.setInt(TAG_SIZE, fileSize);
    std::vector<std::unique_ptr<Client>> holders;
    for (std::size_t part = 0; part < 4; ++part) {
        holders.push_back(client("holder" + std::to_string(part), 1 + part));
        layPart(*holders.back(), bytes_, whole, part);
        holders.back()->start();
        holders.back()->logOn();
        ASSERT_TRUE(index_->said("(holder" + std::to_string(part) + ") has published"));
    }
    const std::unique_ptr<Client> leech = client("leech", 5);
    leech->start();
    leech->logOn();
    leech->findAndDownload("big");
    EXPECT_TRUE(leech->hasFinished("big.bin", bytes_)) << leech->console().output();
    for (const auto& holder : holders) {
        EXPECT_NE(holder->console().output().find("New Upload"), std::string::npos);
    }
}

TEST_F(ManyClientsStory, FourClientsTradeThePartsOfOneSeed) {
    TemporaryDirectory folder;
    writeFile(folder.file("big.bin"), bytes_);
    const std::unique_ptr<Client> seed = client("seed", 1);
    seed->start();
    ASSERT_TRUE(seed->type("dumax 0 10000", "Done."));
    seed->logOn();
    seed->share(folder.path(), *index_);
    std::vector<std::unique_ptr<Client>> leeches;
    for (std::size_t i = 0; i < 4; ++i) {
        leeches.push_back(client("leech" + std::to_string(i), 2 + i));
        leeches.back()->start();
        leeches.back()->logOn();
        leeches.back()->findAndDownload("big");
        // Who comes later finds two sources.
        if (i == 0) {
            ASSERT_TRUE(index_->said("(leech0) has published"));
        }
    }
    std::size_t gave = 0;
    for (const auto& leech : leeches) {
        EXPECT_TRUE(leech->hasFinished("big.bin", bytes_)) << leech->console().output();
    }
    for (const auto& leech : leeches) {
        if (leech->console().output().find("New Upload") != std::string::npos) ++gave;
    }
    EXPECT_GE(gave, 1U);
}

}  // namespace
