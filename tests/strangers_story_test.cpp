// A transfer between two clients while strangers attack the ports of both.
#include <gtest/gtest.h>

#include <fstream>

#include "protocol/PeerProtocol.h"
#include "tests/support/EngineTest.h"
#include "tests/support/Network.h"
#include "tests/support/systemDisk.h"

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr long mostMemory = 4'000'000;  // kB, mostly the sanitizer's
#else
constexpr long mostMemory = 20'000;
#endif

// The peak memory in kB.
long memoryOf(Client& client) {
    std::ifstream status("/proc/" + std::to_string(client.console().pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) return std::stol(line.substr(6));
    }
    return -1;
}

// The first message of stranger `number`: a user at a loopback address where nobody answers.
std::string helloOf(u32 number, const std::string& tags = {}, u32 count = 0) {
    const std::string hash = le32(number) + std::string(12, 'S');
    return opcode(OP_HELLO, "\x10" + hash + le32(0x0000097F + (number << 16)) + le16(9) + le32(count) + tags +
                                le32(0) + le16(0));
}

class StrangersStory : public testing::Test {
  protected:
    // All valid messages about the file, and some that no honest client sends.
    std::string dialogue(u32 number) const {
        std::string bytes = framed(helloOf(number));
        for (const u32 about : {OP_GET_FILE_NAME, OP_GET_FILE_STATUS, OP_GET_HASH_SET})
            bytes += framed(opcode(about, bytesOf(hash_)));
        bytes += framed(opcode(OP_REQUEST_SLOT)) + framed(requestFor(hash_, {{0, 100'000}, {7, 7}, {9, 3}}));
        bytes += framed(requestFor(hash_, {{fileSize - 5, fileSize + 50}, {0, 0}, {0xFFFFFFF0, 0xFFFFFFFF}}));
        bytes +=
            framed(opcode(OP_REQUEST_SLOT)) + framed(requestFor(hash_, {{0xFFFFFF00, 0xFFFFFFFF}, {50, 90}}));
        bytes += framed(opcode(OP_FILE_DATA, bytesOf(hash_) + le32(0) + le32(5) + "wrong"));
        bytes += framed(opcode(OP_GET_SHARED_FILES)) + framed(opcode(OP_CHAT_MESSAGE, text16("buy"))) +
                 framed(opcode(OP_SLOT_GRANTED));
        return bytes + framed(opcode(OP_STOP_UPLOAD, bytesOf(hash_))) + framed(opcode(OP_RELEASE_SLOT)) +
               framed(opcode(OP_SLOT_ENDED));
    }

    // Two hundred visits; the last ones stay and are silent.
    void visit(const std::string& port) {
        const u32 door = static_cast<u32>(std::stoi(port));
        for (u32 i = 0; i < 100; ++i) {
            Caller caller(door);
            const std::string bytes = dialogue(i + 1);
            caller.send(bytes.substr(0, bytes.size() * (i + 1) / 100));
            if (i % 2 == 0) caller.reset();
        }
        for (u32 i = 0; i < 40; ++i) {
            Caller caller(door);
            const std::string garbage = someBytes(3'000, i);
            caller.send(i % 2 == 0 ? garbage : framed(opcode(i + 50, garbage)));
        }
        const std::string absurd = "\2" + text16("\1") + text16(std::string(60'000, 'x'));
        for (u32 i = 0; i < 10; ++i) Caller(door).say(helloOf(500 + i, absurd, 1));
        for (u32 i = 0; i < 50; ++i) silent_.push_back(std::make_unique<Caller>(door));
    }

    // True if a well-behaved client is answered.
    static bool answers(const std::string& port, const MD4Hash& file, const std::string& name) {
        Caller caller(static_cast<u32>(std::stoi(port)));
        caller.say(helloOf(1000));
        caller.say(opcode(OP_GET_FILE_NAME, bytesOf(file)));
        return caller.packet().substr(0, 1) == opcode(OP_HELLO_ANSWER) &&
               caller.packet() == opcode(OP_FILE_NAME, bytesOf(file) + text16(name));
    }

    static constexpr u32 fileSize = 16'000'000;
    const std::string bytes_ = someBytes(fileSize);
    MD4Hash hash_;
    std::vector<std::unique_ptr<Caller>> silent_;
};

TEST_F(StrangersStory, TheFileArrivesAndTheMemoryStays) {
    TemporaryDirectory folder;
    writeFile(folder.file("big.bin"), bytes_);
    std::vector<MD4Hash> parts;
    ASSERT_EQ(MD4Hash::computeFile(hash_, systemDisk(), folder.file("big.bin").c_str(), parts),
              HashOutcome::whole);
    IndexServerProcess index;
    Client seed("seed", index);
    Client leech("leech", index);
    seed.start();
    ASSERT_TRUE(seed.type("dumax 0 4000", "Done."));
    seed.logOn();
    seed.share(folder.path(), index);
    leech.start();
    leech.logOn();
    leech.findAndDownload("big");
    ASSERT_TRUE(eventually([&] { return leech.transferredKB() > 1'000; }));
    ASSERT_FALSE(std::filesystem::exists(leech.file("incoming/big.bin")));

    EXPECT_TRUE(answers(seed.doorPort(), hash_, "big.bin"));
    visit(seed.doorPort());
    visit(leech.doorPort());
    EXPECT_TRUE(answers(seed.doorPort(), hash_, "big.bin"));
    EXPECT_TRUE(leech.hasFinished("big.bin", bytes_)) << leech.console().output() << seed.console().output();
    EXPECT_TRUE(answers(leech.doorPort(), hash_, "big.bin"));
    const std::string& said = seed.console().output();
    EXPECT_NE(said.find("New Upload"), said.rfind("New Upload")) << "strangers got as far as a transfer";
    for (Client* client : {&seed, &leech}) {
        EXPECT_LT(memoryOf(*client), mostMemory);
        client->quit();
    }
}

}  // namespace
