// Two clients and an index server: what one shares the other finds and fetches, smoothly or not; and
// transfers between several clients.
#include <gtest/gtest.h>

#include <fstream>

#include "i4min/file/file.h"
#include "meta/FileMeta.h"
#include "tests/support/Network.h"
#include "tests/support/systemDisk.h"

namespace {

constexpr std::size_t partSize = 9'728'000;

class TwoClientsStory : public testing::Test {
  protected:
    TwoClientsStory() : seed_("seed", index_), leech_("leech", index_) {}

    // Shares big.bin, of that many bytes; the limit is in KB/s.
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
    // Until this much has come in, and the rest hasn't.
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
        EXPECT_TRUE(leech_.hasFinished(small[i].first, small[i].second)) << i;
    // Now it's shared from there too, and not a second time on the list.
    EXPECT_TRUE(index_.said("(leech) has published"));
    EXPECT_NE(leech_.search("big").find("(1) "), std::string::npos);
    EXPECT_TRUE(leech_.type("d 1", "You already have big.bin."));
    leech_.quit();
    seed_.quit();
}

// --- Transfers that don't go smoothly

using TransferStory = TwoClientsStory;

TEST_F(TransferStory, TheSeedIsKilledInTheMiddleAndStartedAgain) {
    begin(12'000'000, "4000");
    leech_.findAndDownload("big");
    waitForKB(3'000);
    const std::string published = "(seed) has published";
    const int before = index_.count(published);
    seed_.kill();
    seed_.start();
    seed_.logOn();
    ASSERT_TRUE(index_.said(published, before + 1)) << "what the leech asks for from now on is there";
    ASSERT_TRUE(leech_.type("m 1 p", "> "));
    ASSERT_TRUE(eventually([&] { return leech_.view("vd", "Total: ").find("Paused") != std::string::npos; }));
    ASSERT_TRUE(leech_.type("m 1 r", "> "));
    expectTheFile();
}

// What an orderly end has saved survives the kill that comes later, and what came in between is fetched
// again.
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

TEST_F(TransferStory, ACorruptPartIsFetchedAgain) {
    begin(12'000'000, "0");
    // From now on the seed offers other bytes than those that it has hashed.
    std::fstream shared(folder_.file("big.bin"), std::ios::in | std::ios::out | std::ios::binary);
    shared.seekp(partSize + 1'000) << "other bytes" << std::flush;
    leech_.findAndDownload("big");
    ASSERT_TRUE(leech_.console().waitFor("Corruption found")) << leech_.console().output();
    shared.seekp(partSize + 1'000) << bytes_.substr(partSize + 1'000, 11) << std::flush;
    expectTheFile();
}

// --- Several clients, each with an address of its own

class ManyClientsStory : public testing::Test {
  protected:
    void SetUp() override {
        if (!network_.usable()) GTEST_SKIP() << network_.why();
        index_ = std::make_unique<IndexServerProcess>(network_.host(0));
    }
    // Shares big.bin from a folder, with these bytes.
    void layFile(std::size_t size) {
        bytes_ = someBytes(size, 8);
        writeFile(folder_.file("big.bin"), bytes_);
    }
    std::unique_ptr<Client> client(const std::string& name, std::size_t host) {
        return std::make_unique<Client>(name, *index_, network_.host(host));
    }
    static void expectTheFile(Client& client, const std::string& bytes) {
        EXPECT_TRUE(client.hasFinished("big.bin", bytes)) << client.console().output();
    }

    NamespaceNetwork network_{6};
    std::unique_ptr<IndexServerProcess> index_;
    TemporaryDirectory folder_;
    std::string bytes_;
};

// Nobody reaches one of the two: the server gives it a low ID, and the other one's calls go through the
// server.
TEST_F(ManyClientsStory, AClientBehindAFirewallGivesAndFetches) {
    layFile(1'000'000);
    const TemporaryDirectory folder;
    const std::string given = someBytes(1'000'000, 9);
    writeFile(folder.file("hidden.bin"), given);
    const std::unique_ptr<Client> open = client("open", 1);
    const std::unique_ptr<Client> hidden = client("hidden", 2);
    if (!network_.shutPort(2, hidden->doorPort()))
        GTEST_SKIP() << "a port can't be shut here: ip refuses a rule for it";
    for (Client* one : {open.get(), hidden.get()}) {
        one->start();
        one->logOn();
        const std::string state = one->view("g", "Files: ");
        EXPECT_NE(state.find(one == open.get() ? "(open)" : "(firewalled)"), std::string::npos) << state;
        one->share(one == open.get() ? folder_.path() : folder.path(), *index_);
    }
    open->findAndDownload("hidden");
    hidden->findAndDownload("big");
    EXPECT_TRUE(open->hasFinished("hidden.bin", given)) << open->console().output();
    expectTheFile(*hidden, bytes_);
}

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
    u32 gaps = 0;
    for (const auto& [from, to] : {std::pair{std::size_t{0}, start}, {end, bytes.size()}}) {
        if (from == to) continue;
        const u32 ends[] = {static_cast<u32>(from), static_cast<u32>(to)};
        const std::string number = std::to_string(gaps++);
        for (int i = 0; i < 2; ++i)
            record.addTag(MetaTag::makeTag(META_TAG_INT, ((i ? "\n" : "\t") + number).c_str(), &ends[i]));
    }
    const std::unique_ptr<i4_file> file =
        i4_open_exact(client.file("temp/1.part.met").c_str(), I4_FILE_WRITE | I4_FILE_TRUNCATE);
    file->write_8(0xE0);
    EXPECT_TRUE(record.toDisk(*file));
}

TEST_F(ManyClientsStory, FourClientsWithOnePartEachGiveTheWholeToOne) {
    layFile(30'000'000);
    FileMeta whole;
    ASSERT_EQ(
        MD4Hash::computeFile(whole.hash, systemDisk(), folder_.file("big.bin").c_str(), whole.partHashes),
        HashOutcome::whole);
    whole.setName("big.bin");
    whole.setInt(TAG_SIZE, static_cast<u32>(bytes_.size()));
    std::vector<std::unique_ptr<Client>> holders;
    for (std::size_t part = 0; part < 4; ++part) {
        const std::string name = "holder" + std::to_string(part);
        holders.push_back(client(name, 1 + part));
        layPart(*holders.back(), bytes_, whole, part);
        holders.back()->start();
        holders.back()->logOn();
        ASSERT_TRUE(index_->said("(" + name + ") has published"));
    }
    const std::unique_ptr<Client> leech = client("leech", 5);
    leech->start();
    leech->logOn();
    leech->findAndDownload("big");
    expectTheFile(*leech, bytes_);
    for (const auto& holder : holders)
        EXPECT_NE(holder->console().output().find("New Upload"), std::string::npos);
}

TEST_F(ManyClientsStory, FourClientsTradeThePartsOfOneSeed) {
    layFile(2 * partSize);
    const std::unique_ptr<Client> seed = client("seed", 1);
    seed->start();
    ASSERT_TRUE(seed->type("dumax 0 10000", "Done."));
    seed->logOn();
    seed->share(folder_.path(), *index_);
    std::vector<std::unique_ptr<Client>> leeches;
    for (std::size_t i = 0; i < 4; ++i) {
        leeches.push_back(client("leech" + std::to_string(i), 2 + i));
        leeches.back()->start();
        leeches.back()->logOn();
        leeches.back()->findAndDownload("big");
        // Who comes later finds two sources at least.
        ASSERT_TRUE(index_->said("(leech0) has published"));
    }
    bool gave = false;
    for (const auto& leech : leeches) expectTheFile(*leech, bytes_);
    for (const auto& leech : leeches)
        gave = gave || leech->console().output().find("New Upload") != std::string::npos;
    EXPECT_TRUE(gave);
}

}  // namespace
