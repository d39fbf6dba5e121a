// What the views print, to the character.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "app/ClientApp.h"
#include "download/DLPool.h"
#include "peer/Peer.h"
#include "peer/UploadPool.h"
#include "server/MainServer.h"
#include "server/ServerPool.h"
#include "tests/support/Screen.h"
#include "tests/support/files.h"

namespace {

using testing::EndsWith;
using testing::MatchesRegex;
using testing::StartsWith;

class Views : public testing::Test {
  protected:
    Screen screen_;
};

TEST_F(Views, TakeTheirColumnsFromTheFirstRecord) {
    EXPECT_EQ(screen_.type("vr"), "None.\n");
    EXPECT_EQ(screen_.type("vf"), "None.\n");
    auto first = makeFile("one", 3000, 1);
    first->setInt("odd", 7);
    auto second = makeFile("two", 4294967295U, 2);
    second->removeTag(TAG_SIZE);
    second->setText("more", "unseen");
    MetaBlob blob;
    second->setTag("odd", &blob, META_TAG_BLOB);
    screen_.showResults({first.release(), second.release()});
    EXPECT_EQ(screen_.type("vr"), "Name\tSize\todd\t\n(1) one\t3000\t7\t\n(2) two\t\t\t\n");

    auto shared = makeFile("mine", 5, 3);
    clientApp.shared.add(shared.get());
    EXPECT_EQ(screen_.type("vf"), "Name\tSize\t\n(1) mine\t5\t\n");
    clientApp.shared.clear();
}

TEST_F(Views, CutARowAtItsLimitButNeverInsideACharacter) {
    std::string name = "x";
    for (int i = 0; i < 150; ++i) name += "\xC3\xA4";
    screen_.showResults({makeFile(name.c_str(), 1, 1).release()});
    EXPECT_EQ(screen_.type("vr"), "Name\tSize\t\n(1) " + name.substr(0, 1 + 2 * 125) + "\n");
    // The 256th byte is the second of a character here.
    screen_.showResults({makeFile(name.substr(1).c_str(), 1, 1).release()});
    EXPECT_EQ(screen_.type("vr"), "Name\tSize\t\n(1) " + name.substr(1, 2 * 125) + "\n");
    screen_.showResults({makeFile(std::string(300, '\x80').c_str(), 1, 1).release()});
    EXPECT_THAT(screen_.type("vr"), StartsWith("Name\tSize\t\n(1) \x80\x80"));
}

TEST_F(Views, ShowServersWithTheirAddresses) {
    writeFile("hand.met", {"\x0E\1\0\0\0\1\2\3\4\x35\x12\0\0\0\0", 15});
    serverPool.load("hand.met");
    screen_.type("n 192.0.2.34 65535");
    EXPECT_EQ(screen_.type("vm"),
              "ping\tusers\tfiles\t\n(1) 0\t0\t0\t\n\t1.2.3.4 : 4661\n(2) \t\t\t\n\t192.0.2.34 : 65535\n");
    serverPool.servers().deleteAll();
}

TEST_F(Views, ShowDownloadsAndTheirSpace) {
    EXPECT_EQ(screen_.type("vd"),
              "File Name\tStatus\tSize\tTransfered\tSpeed\tAvailable\tPriority\nTotal: 0.00 (5.00)\n");
    dlPool.add(*makeFile("big \x1B[2J", 4294967295U, 4));
    dlPool.add(*makeFile("small", 1047, 5));
    screen_.type("m 2 h");
    preferences.curDownSpeed = 12.345F;
    EXPECT_EQ(screen_.type("vd"),
              "File Name\tStatus\tSize\tTransfered\tSpeed\tAvailable\tPriority\n"
              "(1) big \x1B[2J:\n\t\tQueued\t4194303k\t0k\t0.00\t0%\tNormal\n"
              "(2) small:\n\t\tQueued\t1k\t0k\t0.00\t0%\tHigh\nTotal: 12.35 (5.00)\n");
    preferences.curDownSpeed = 0;
    EXPECT_THAT(screen_.type("space"),
                MatchesRegex("Space free on temp partion:     [0-9]+\\.[0-9]{2}MB\n"
                             "Space free on incoming partion: [0-9]+\\.[0-9]{2}MB\n"
                             "Space needed by downloads:      [0-9]+\\.[0-9]{2}MB\n"
                             "\\(4095\\.00MB\\) :\t big .\\[2J \n\\(0\\.00MB\\) :\t small \n"));
    for (int i = 0; i < 2; ++i) screen_.answer("m 1 c");
    EXPECT_EQ(dlPool.count(), 0U);
}

TEST_F(Views, ShowUploadsQueueAndConnections) {
    EXPECT_EQ(screen_.type("vu"), "File Name\t\tWho\t\tSpeed\nTotal: 0.00 (5.00)\n");
    EXPECT_EQ(screen_.type("vq"), "Assigned Slots: \n\nWaiting: \n");
    EXPECT_EQ(screen_.type("vp"), "0 Connections.\n");

    const Ref<Peer> peer(new Peer(0x220200C0, 4662));
    const Ref<Upload> upload(
        new Upload(std::make_unique<i4_owned_ram_file>(), *peer, "fat day.mp3", MD4Hash()));
    upload->speed = 4.25F;
    screen_.uploadAdded(upload.get());
    EXPECT_EQ(screen_.type("vu"), "File Name\t\tWho\t\tSpeed\n(1) fat day.mp3\t\t4.2\nTotal: 0.00 (5.00)\n");
    screen_.uploadRemoved(upload.get());
    peers.add(peer.get());
    EXPECT_EQ(screen_.type("vp"), "0 Connections.\n(1) \n");
    peers.remove(peer.get());

    uploadPool.gotSlotRequest(*peer);
    EXPECT_EQ(screen_.type("vq"), "Assigned Slots: \n(1)  \t(570556608:192.0.2.34)\n\nWaiting: \n");
    uploadPool.clear();
}

TEST_F(Views, ShowTheServerState) {
    for (const auto& [id, line] : {std::pair{0U, "ClientID: 0 (firewalled)\n"},
                                   {0xFFFFFEU, "ClientID: 16777214 (firewalled)\n"},
                                   {0xFFFFFFU, "ClientID: 16777215 (open)\n"},
                                   {0xFF0200C0U, "ClientID: 4278321344 (open)\n"}}) {
        preferences.setClientId(id);
        EXPECT_EQ(screen_.type("g"), line + std::string("Not connected to a server.\n"));
    }
    ServerMeta record;
    record.setAddress("192.0.2.34", 4661);
    record.setName("First");
    const Ref<MainServer> server(new MainServer(record));
    serverPool.setMainServer(server.get());
    CLUI().serverStats(88312, 1204);
    EXPECT_THAT(screen_.type("g"),
                EndsWith("(open)\nConnected to: 192.0.2.34\n   Users: 1204    Files: 88312\n"));
    serverPool.setMainServer(nullptr);
    CLUI().disconnected();
    EXPECT_EQ(conClientApp.serverUsers + conClientApp.serverFiles, 0U);
    preferences.setClientId(0);
}

TEST(Terminal, GetsNoControlCharacterOfStrangers) {
    UIInterface ui;
    testing::internal::CaptureStdout();
    ui.printLine("%s", "a\x1B[2J\r\b\x7F\tb\nc");
    ui.print("%s", "\xC2\x9B\x31m \xC3\x9B \xC2\xA0 \xC2");
    ui.printVerbose("unseen");
    ui.verbose = 1;
    ui.printVerbose("\7%d", 1);
    ui.printFlush("\1");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a?[2J???\tb\nc\n??1m \xC3\x9B \xC2\xA0 \xC2?1?");
    for (const auto kind : {UIInterface::Complaint::upload, UIInterface::Complaint::serverMessage}) {
        int complaints = 0;
        for (int i = 0; i < 1000; ++i) complaints += ui.mayComplain(kind) ? 1 : 0;
        EXPECT_TRUE(complaints == 60 || complaints == 120)
            << "in one minute, or at the turn of two: " << complaints;
    }
    i4_owned_ram_file terminal;
    i4_file* const old = std::exchange(i4_debug_stream, &terminal);
    CLUI().connected("a\x1B]0;b\7");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(terminal.buffer()), terminal.size()),
              "Connected to: a?]0;b?\n");
    i4_debug_stream = old;
}

}  // namespace
