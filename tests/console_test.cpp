// Every command: its answers to good and bad input, and its effect. The output of the views, character by
// character.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>

#include "console/commands.h"
#include "download/Collection.h"
#include "download/DLPool.h"
#include "download/HashThread.h"
#include "engine/ClientApp.h"
#include "peer/Peer.h"
#include "peer/UploadPool.h"
#include "server/Search.h"
#include "server/ServerPool.h"
#include "tests/support/Screen.h"

namespace {

using namespace std::string_literals;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

class Console : public testing::Test, protected OwnScreen {
  protected:
    // Each of the lines must give this answer.
    void expect(const std::string& says, const std::vector<std::string>& lines) {
        for (const std::string& line : lines) EXPECT_EQ(screen_.answer(line), says) << line;
    }
    std::string here(const std::string& name) { return preferences.workDir.c_str() + ("/" + name); }
};

TEST_F(Console, WordsAreComparedWhole) {
    expect("Unrecognized command. type ? for help\n\n",
           {"", " ,\t\"", "A", "vrx", "v", "nonsense vo", "vo\r", std::string(5000, 'x')});
    expect("", {"t", "vc", " \"t", "t,5"});
    EXPECT_THAT(screen_.type("?"), EndsWith("quit: q\n\nhttps://tarnwick.example\n"));
}

// The answer to each line, and what `vo` shows then.
TEST_F(Console, SettingsTakeWhatIsGoodAndNameWhatIsNot) {
    const char* const done = "Done.\n";
    const char* const later = "Port will change when you restart.\n";
    const char* const invalid = "Invalid arguments.\n";
    std::vector<std::array<std::string, 3>> cases = {
        {"name \"kit x\"", "ok.\n", "Name:\t\t\tkit\n"},
        {"name", invalid, "Name:\t\t\tkit\n"},
        {"dumax 14,4", done, "Max Download Speed:\t14.00\nMax Upload Speed:\t4.00\n"},
        {"dumax -7 none", done, "Max Download Speed:\t0.00\nMax Upload Speed:\t0.00\n"},
        {"line 300", done, "Line Speed Down:\t300.00\n"},
        {"mcon 50", done, "MaxConnections:\t\t50\n"},
        {"mcon 4294967297", "", "MaxConnections:\t\t50\n"},
        {"port 5001", later, "Door Port:\t\t5001\n"},
        {"port 0", invalid, "Door Port:\t\t5001\n"},
        {"port 4294967297", invalid, "Door Port:\t\t5001\n"},
        {"aport 5002", later, "AdminPort:\t\t5002\n"},
        {"aport -1", invalid, "AdminPort:\t\t5002\n"},
        {"pass kit kitpass", "", "AdminPass:\t\tkitpass\n"},
        {"pass onlyname", "", "AdminName:\t\t\nAdminPass:\t\t\n"},
    };
    for (const auto& [name, shown] : {std::pair{"auto"s, "AutoConnect:\t\t"s},
                                      {"save", "Corrupted:\t\t"},
                                      {"asr", "Remove:\t"},
                                      {"verbose", "Verbose:\t\t"}}) {
        for (const auto& [dash, state] : {std::pair{" -", "0\n"}, {"", "1\n"}, {" -x", "0\n"}})
            cases.push_back({name + dash, "", shown + state});
    }
    for (const auto& [line, says, becomes] : cases) {
        EXPECT_EQ(screen_.type(line), says) << line;
        EXPECT_THAT(screen_.type("vo"), HasSubstr(becomes)) << line;
    }
}

TEST_F(Console, DirectoriesTakeTheRestOfTheLine) {
    expect("", {"in", "in ", "temp", "temp ", "a", "a ", "a+", "a+ "});
    const std::string odd = here("odd, \"name\" ");
    EXPECT_EQ(screen_.type("in " + odd), "Incoming directory is now: " + odd + "\n");
    EXPECT_EQ(preferences.incomingDir(), odd.c_str());
    EXPECT_TRUE(std::filesystem::is_directory(odd));
    EXPECT_EQ(screen_.type("temp,other temp"), "Temp directory is now: other temp\n");
    EXPECT_EQ(preferences.tempDir(), "other temp");
}

TEST_F(Console, ServersAreAddedByAddressAndTakenByNumber) {
    expect("192.0.2.34 added\n\n", {"n 192.0.2.34"});
    expect("192.0.2.35 added\n\n", {"n 192.0.2.35 5000"});
    expect("Invalid arguments\n", {"n", "n example.org", "n 1.2.3.256", "n 1.2.3.4 0", "n 1.2.3.4 65536"});
    expect("\n(1) \n\t192.0.2.34 : 4661\n(2) \n\t192.0.2.35 : 5000\n", {"vm"});
    const std::string badNumber = "Invalid server number\n\n";
    expect(badNumber, {"c 0", "c foo"});
    expect("", {"c 3", "c -1", "c 4294967297"});
    serverPool.setSocketPool(clientApp.socketPool);
    expect("Connecting to 192.0.2.35 ....\n", {"c 2"});
    expect("Already trying to connect.\n", {"c"});
    expect("", {"x"});
    expect("Connecting to 192.0.2.34 ....\n", {"c 1"});
    expect("", {"x"});
    expect(badNumber, {"b", "b 0", "b x", "b 3"});
    expect("Server Removed.\n\n", {"b 1"});
    expect("\n(1) \n\t192.0.2.35 : 5000\n", {"vm"});
}

TEST_F(Console, ASearchTakesFourWordsAndTheLastType) {
    EXPECT_EQ(screen_.type("xs"), "No search to extend.\n");
    expect("No search string.\n\n", {"s", "s -Audio", "s -a -b -c -d day"});
    for (const auto& [line, tree] :
         {std::pair{"s a b c d e"s, "search( a b c d )"s},
          {"s -Pro day -Audio -Video", "search(  ( \3=Video & day )  )"},
          {"s " + std::string(60, 'x') + " y", "search( " + std::string(49, 'x') + " )"}}) {
        i4_string copy(line.c_str());
        char text[256] = "";
        searchFor(&copy[0])->printable(text, sizeof text);
        EXPECT_EQ(text, tree) << line;
    }
    expect("Not connected to a server.\n", {"s day"});
}

TEST_F(Console, DownloadsAreStartedAndChangedByNumber) {
    expect("Invalid Result number\n\n", {"d 1"});
    screen_.showResults({makeFile("one", 3000, 1).release(), makeFile("two", 3000, 2).release()});
    expect("Invalid Result number\n\n", {"d", "d 0", "d x", "d 3", "d -1"});
    expect("Downloading: two\n", {"d 2"});
    Download* download = screen_.console.downloads.getAt(0);
    ASSERT_NE(download, nullptr);
    expect("", {"m", "m 1", "m 0", "m 2 p", "m 1 x"});
    expect("Invalid Download number.\n\n", {"m 0 p", "m x p"});
    for (const auto& [line, priority] : {std::pair{"m 1 low", 0}, {"m 1 h", 2}, {"m 1 n", 1}}) {
        EXPECT_EQ(screen_.type(line), "");
        EXPECT_EQ(download->priority, priority) << line;
    }
    for (const bool paused : {true, false}) {
        EXPECT_EQ(screen_.answer(paused ? "m 1 p" : "m 1 r"), "");
        EXPECT_EQ(download->isPaused(), paused);
    }
    EXPECT_EQ(screen_.type("temp nowhere"),
              "Can't change temporary directory with pending downloads.\nTemp directory is now: nowhere\n");
    EXPECT_EQ(std::string(preferences.tempDir().c_str()), here("temp"));
    expect("", {"m 1 c"});
    EXPECT_EQ(dlPool.count(), 0U);
}

TEST_F(Console, LinksAreReadFieldByField) {
    const std::string hash = "0123456789abcdef0123456789ABCDEF";
    expect("", {"dllink", "dllink tnwk://|files|a|1|" + hash});
    expect("This is not a valid tnwk-link. see help screen for format required.\n",
           {"dllink tnwk://|file|", "dllink tnwk://|file|a b|x|" + hash, "dllink tnwk://|file|a b|12|",
            "dllink tnwk://|file|a b|4294967296|" + hash,
            "dllink tnwk://|file|" + std::string(256, 'x') + "|12|" + hash});
    expect("Invalid hash in tnwk-link.\n", {"dllink tnwk://|file|a b|12|" + hash + "0|",
                                            "dllink tnwk://|file|a b|12|" + hash.substr(1) + "g|"});
    EXPECT_EQ(screen_.answer("dllink other:|file|a, b|4294967295|" + hash + "|"), "Downloading: a, b\n");
    Download* download = screen_.console.downloads.getAt(0);
    ASSERT_NE(download, nullptr);
    EXPECT_EQ(download->hash().bytes[1], 0x23);
    EXPECT_EQ(download->partial().fileSize(), 4294967295U);
}

TEST_F(Console, PartsComeFromTheSelectedCollection) {
    expect("No Collection selected.\n\n", {"p 1"});
    Collection collection(screen_.engine.core);
    collection.self.setName("set");
    collection.add(makeFile("part one", 3, 9).release());
    ASSERT_TRUE(collection.store());
    for (const char* type : {"Doc", "Col"}) {
        auto file = std::make_unique<FileMeta>();
        file->copyFrom(&collection.self);
        file->setText(TAG_TYPE, type);
        clientApp.shared.add(file.get());
        clientApp.known.add(file.release());
    }
    expect("Invalid Collection number.\n\n", {"o", "o 0", "o x", "o 1", "o 3"});
    expect("No Collection selected.\n\n", {"p 1"});
    expect("Name\tSize\t\n(1) part one\t3\t\n", {"o 2"});
    writeFile(collection.self.path.c_str(), "damaged");
    expect("Invalid Collection number.\n\n", {"o 2"});
    expect("Invalid Part number.\n\n", {"p 0", "p x", "p 2"});
    expect("Downloading: part one\n\nDownloading: part one\n", {"p 1"});
}

TEST_F(Console, SharedDirectoriesAreAddedAsTreesAndTakenOutByNumber) {
    const std::string incoming = here("incoming");
    std::filesystem::create_directories("tree/.hidden/below");
    std::filesystem::create_directories("tree/in side/deep");
    std::filesystem::create_directory_symlink("..", "tree/in side/up");
    const std::string tree = here("tree");
    for (const auto& line : {"a+ " + tree, "a+ " + here("missing"), "a a  b"s}) screen_.type(line);
    EXPECT_EQ(screen_.type("vs"), "(1) " + tree + "\n(2) " + tree + "/in side\n(3) " + tree +
                                      "/in side/deep\n(4) " + incoming + "\n(5) a  b\n");
    EXPECT_EQ(screen_.type("u") + screen_.type("u 0"),
              "Invalid Directory number.\n\nInvalid Directory number.\n\n");
    for (const char* line : {"u 2", "u 99", "u -1", "u 2", "u 1"}) screen_.type(line);
    EXPECT_EQ(screen_.type("vs"), "(1) " + incoming + "\n(2) a  b\n");
    while (messageQ.process()) continue;
    hashThread.stop();
}

TEST_F(Console, ASaveBeforeTheListsAreReadKeepsThem) {
    for (const char* name : {"known.met", "friend.met"}) writeFile(name, "unread");
    clientApp.saveAll();
    for (const char* name : {"known.met", "friend.met"}) EXPECT_EQ(contentOf(name), "unread") << name;
    EXPECT_TRUE(exists("pref.met"));
}

// --- Views

TEST_F(Console, ViewsTakeTheirColumnsFromTheFirstRecord) {
    EXPECT_EQ(screen_.type("vr"), "None.\n");
    auto first = makeFile("one", 3000, 1);
    first->setInt("odd", 7);
    auto second = makeFile("two", 4294967295U, 2);
    second->removeTag(TAG_SIZE);
    screen_.showResults({first.release(), second.release()});
    EXPECT_EQ(screen_.type("vr"), "Name\tSize\todd\t\n(1) one\t3000\t7\t\n(2) two\t\t\t\n");
}

TEST_F(Console, ViewsCutARowAtItsLimitButNeverInsideACharacter) {
    std::string name;
    for (int i = 0; i < 150; ++i) name += "\xC3\xA4";
    for (const std::string& first : {"x"s, ""s}) {  // byte 256 splits a character in one of them
        screen_.showResults({makeFile(first + name, 1, 1).release()});
        EXPECT_EQ(screen_.type("vr"), "Name\tSize\t\n(1) " + first + name.substr(0, 2 * 125) + "\n");
    }
}

TEST_F(Console, ViewsShowSpeedsAndSpace) {
    dlPool.add(*makeFile("big \x1B[2J", 4294967295U, 4));
    dlPool.add(*makeFile("small", 1047, 5));
    preferences.curDownSpeed = 12.345F;
    EXPECT_THAT(screen_.type("vd"), HasSubstr("4194303k\t0k\t0.00\t0%\tNormal\n(2) small:\n\t\tQueued\t"));
    EXPECT_THAT(screen_.type("vd"), EndsWith("\nTotal: 12.35 (5.00)\n"));
    preferences.curDownSpeed = 0;
    EXPECT_THAT(screen_.type("space"),
                MatchesRegex("Space free on temp partion:     [0-9]+\\.[0-9]{2}MB\n"
                             "Space free on incoming partion: [0-9]+\\.[0-9]{2}MB\n"
                             "Space needed by downloads:      [0-9]+\\.[0-9]{2}MB\n"
                             "\\(4095\\.00MB\\) :\t big .\\[2J \n\\(0\\.00MB\\) :\t small \n"));

    const Ref<Peer> peer(new Peer(clientApp.socketPool, screen_.engine.peerNeeds, 0x220200C0, 4662));
    const Ref<Upload> upload(new Upload(uploadPool, screen_, std::make_unique<i4_owned_ram_file>(), *peer,
                                        "fat day.mp3", MD4Hash()));
    upload->speed = 4.25F;
    screen_.uploadAdded(upload.get());
    EXPECT_EQ(screen_.type("vu"), "File Name\t\tWho\t\tSpeed\n(1) fat day.mp3\t\t4.2\nTotal: 0.00 (5.00)\n");
    screen_.uploadRemoved(upload.get());
}

TEST(Terminal, GetsNoControlCharacterOfStrangers) {
    UIInterface ui;
    testing::internal::CaptureStdout();
    ui.printLine("%s", "a\x1B[2J\r\b\x7F\tb\nc");
    ui.print("%s", "\xC2\x9B\x31m \xC3\x9B \xC2\xA0 \xC2");
    ui.printVerbose("unseen");
    ui.setVerbose(true);
    ui.printVerbose("\7%d", 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "a?[2J???\tb\nc\n??1m \xC3\x9B \xC2\xA0 \xC2?1");
    for (const auto kind : {UIInterface::Complaint::upload, UIInterface::Complaint::serverMessage}) {
        int complaints = 0;
        for (int i = 0; i < 1000; ++i) complaints += ui.mayComplain(kind) ? 1 : 0;
        EXPECT_TRUE(complaints == 60 || complaints == 120)
            << "in one minute, or at the turn of two: " << complaints;
    }
    i4_owned_ram_file terminal;
    i4_file* const old = std::exchange(i4_debug_stream, &terminal);
    ConClientApp console;
    CLUI(console).connected("a\x1B]0;b\7");
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(terminal.buffer()), terminal.size()),
              "Connected to: a?]0;b?\n");
    i4_debug_stream = old;
}

}  // namespace
