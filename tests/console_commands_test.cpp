// Every command: what it answers to good and bad input, and what it does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "app/ClientApp.h"
#include "console/commands.h"
#include "download/Collection.h"
#include "download/DLPool.h"
#include "download/HashThread.h"
#include "server/Search.h"
#include "server/ServerPool.h"
#include "tests/support/Screen.h"
#include "tests/support/files.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class ConsoleCommands : public testing::Test {
  protected:
    // Each of the lines is answered so at once.
    void expect(const std::string& says, const std::vector<std::string>& lines) {
        for (const std::string& line : lines) EXPECT_EQ(screen_.type(line), says) << line;
    }
    std::string here(const std::string& name) { return preferences.workDir.c_str() + ("/" + name); }

    Screen screen_;
};

TEST_F(ConsoleCommands, WordsAreComparedWhole) {
    expect("Unrecognized command. type ? for help\n\n",
           {"", " ,\t\"", "A", "vrx", "v", "nonsense vo", "vo\r", std::string(5000, 'x')});
    expect("", {"t", "vc", " \"t", "t,5"});
    EXPECT_THAT(screen_.type("?"), EndsWith("quit: q\n\nhttps://tarnwick.example\n"));
}

TEST_F(ConsoleCommands, SettingsTakeWhatIsGoodAndNameWhatIsNot) {
    const char* const ok = "ok.\n";
    const char* const done = "Done.\n";
    const char* const later = "Port will change when you restart.\n";
    const char* const invalid = "Invalid arguments.\n";
    screen_.type("name kit");
    EXPECT_EQ(screen_.type("vo"),
              "Name:\t\t\tkit\nAdminName:\t\t\nAdminPass:\t\t\nAdminPort:\t\t4663\n"
              "Max Download Speed:\t0.00\nMax Upload Speed:\t0.00\nLine Speed Down:\t0.00\n"
              "Door Port:\t\t4662\nAutoConnect:\t\t0\nVerbose:\t\t0\nSaveCorrupted:\t\t1\n"
              "AutoServerRemove:\t1\nMaxConnections:\t\t45\n");
    const struct {
        const char* line;
        const char* says;
        std::string becomes;  // what `vo` shows then
    } cases[] = {
        {"name", invalid, "Name:\t\t\tkit\n"},
        {"name \"a b\"", ok, "Name:\t\t\ta\n"},
        {"dumax 20 4", done, "Max Download Speed:\t12.00\nMax Upload Speed:\t4.00\n"},
        {"dumax 14,4", done, "Max Download Speed:\t14.00\nMax Upload Speed:\t4.00\n"},
        {"dumax 0 8", done, "Max Download Speed:\t32.00\nMax Upload Speed:\t8.00\n"},
        {"dumax 5", invalid, "Max Download Speed:\t32.00\nMax Upload Speed:\t8.00\n"},
        {"dumax -7 none", done, "Max Download Speed:\t0.00\nMax Upload Speed:\t0.00\n"},
        {"line 300", done, "Line Speed Down:\t300.00\n"},
        {"line", invalid, "Line Speed Down:\t300.00\n"},
        {"line -5", done, "Line Speed Down:\t0.00\n"},
        {"mcon 50", done, "MaxConnections:\t\t50\n"},
        {"mcon 60x", "", "MaxConnections:\t\t50\n"},
        {"mcon", "", "MaxConnections:\t\t50\n"},
        {"mcon 4294967297", "", "MaxConnections:\t\t50\n"},
        {"port 5001", later, "Door Port:\t\t5001\n"},
        {"port", invalid, "Door Port:\t\t5001\n"},
        {"port 0", invalid, "Door Port:\t\t5001\n"},
        {"port 65536", invalid, "Door Port:\t\t5001\n"},
        {"port 4294967297", invalid, "Door Port:\t\t5001\n"},
        {"aport 5002", later, "AdminPort:\t\t5002\n"},
        {"aport", invalid, "AdminPort:\t\t5002\n"},
        {"aport -1", invalid, "AdminPort:\t\t5002\n"},
        {"pass kit kitpass", "", "AdminName:\t\tkit\nAdminPass:\t\tkitpass\n"},
        {"pass onlyname", "", "AdminName:\t\t\nAdminPass:\t\t\n"},
        {"pass a b c", "", "AdminName:\t\ta\nAdminPass:\t\tb\n"},
        {"pass", "", "AdminName:\t\t\nAdminPass:\t\t\n"},
        {"test 7", "Number set.\n", ""},
        {"lang", invalid, ""},
    };
    for (const auto& [line, says, becomes] : cases) {
        EXPECT_EQ(screen_.type(line), says) << line;
        EXPECT_THAT(screen_.type("vo"), HasSubstr(becomes)) << line;
    }
    for (const auto& [name, shown] : {std::pair{"auto", "AutoConnect:\t\t"},
                                      {"save", "SaveCorrupted:\t\t"},
                                      {"asr", "AutoServerRemove:\t"},
                                      {"verbose", "Verbose:\t\t"}}) {
        for (const auto& [dash, state] :
             {std::pair{" -", "0"}, {"", "1"}, {" -x", "0"}, {" x", "1"}, {" -", "0"}}) {
            EXPECT_EQ(screen_.type(name + std::string(dash)), "");
            EXPECT_THAT(screen_.type("vo"), HasSubstr(shown + std::string(state) + "\n")) << name << dash;
        }
    }
}

TEST_F(ConsoleCommands, ALanguageRenamesTheCommonTags) {
    std::string language;
    for (int number = 0; number < 78; ++number) language += "xx" + std::to_string(number) + "\n";
    writeFile("xx.str", language);
    auto file = makeFile("one", 3000, 1);
    for (const TagIndex tag : {TAG_PRIORITY, TAG_AVAILABILITY, TAG_PING}) file->setInt(tag, 7);
    screen_.showResults({file.release()});
    for (const auto& [line, header] : {std::pair{"lang xx", "xx52\txx53\txx61\txx62\tping\t\n"},
                                       {"lang none", "Name\tSize\tPriority\tAvailability\tping\t\n"}}) {
        EXPECT_EQ(screen_.type(line), "ok.\n");
        EXPECT_THAT(screen_.type("vr"), StartsWith(header));
    }
    screen_.showResults({});
}

TEST_F(ConsoleCommands, DirectoriesTakeTheRestOfTheLine) {
    expect("", {"in", "in ", "temp", "temp ", "a", "a ", "a+", "a+ "});
    EXPECT_EQ(preferences.incomingDir(), here("incoming").c_str());
    const std::string odd = here("odd, \"name\" ");
    EXPECT_EQ(screen_.type("in " + odd), "Incoming directory is now: " + odd + "\n");
    EXPECT_EQ(preferences.incomingDir(), odd.c_str());
    EXPECT_TRUE(std::filesystem::is_directory(odd));
    EXPECT_EQ(screen_.type("temp,other temp"), "Temp directory is now: other temp\n");
    EXPECT_EQ(preferences.tempDir(), "other temp");
    screen_.type("in " + here("incoming"));
    screen_.type("temp " + here("temp"));
}

TEST_F(ConsoleCommands, ServersAreAddedByAddressAndTakenByNumber) {
    EXPECT_EQ(screen_.type("n 192.0.2.34"), "192.0.2.34 added\n\n");
    EXPECT_EQ(screen_.type("n 192.0.2.35 5000"), "192.0.2.35 added\n\n");
    expect("Invalid arguments\n", {"n", "n example.org", "n 1.2.3", "n 1.2.3.4.5", "n 1.2.3.256",
                                   "n 1.2.3.4 0", "n 1.2.3.4 x", "n 1.2.3.4 65536", "n 0.0.0.0"});
    EXPECT_EQ(screen_.type("vm"), "\n(1) \n\t192.0.2.34 : 4661\n(2) \n\t192.0.2.35 : 5000\n");

    const std::string badNumber = "Invalid server number\n\n";
    expect(badNumber, {"c 0", "c foo"});
    expect("", {"c 3", "c -1", "c 65537", "c 4294967297"});
    EXPECT_EQ(screen_.handled(), "");
    serverPool.setSocketPool(&clientApp.socketPool);
    EXPECT_EQ(screen_.type("c 2"), "");
    EXPECT_EQ(screen_.handled(), "Connecting to 192.0.2.35 ....\n");
    EXPECT_EQ(screen_.answer("c"), "Already trying to connect.\n");
    EXPECT_EQ(screen_.answer("x"), "");
    EXPECT_EQ(screen_.answer("c 1"), "Connecting to 192.0.2.34 ....\n");
    screen_.answer("x");

    expect(badNumber, {"b", "b 0", "b x", "b 3", "b -1"});
    EXPECT_EQ(screen_.type("b 1"), "Server Removed.\n\n");
    EXPECT_EQ(screen_.type("vm"), "\n(1) \n\t192.0.2.35 : 5000\n");
    screen_.type("b 1");
    EXPECT_EQ(screen_.type("vm"), "None.\n");
}

TEST_F(ConsoleCommands, ASearchTakesFourWordsAndTheLastType) {
    EXPECT_EQ(screen_.type("xs"), "No search to extend.\n");
    expect("No search string.\n\n", {"s", "s -Audio", "s -a -b -c -d day"});
    const std::string longWord(60, 'x');
    const struct {
        std::string line;
        const char* tree;
    } searches[] = {{"s a b c d e", "search( a b c d )"},
                    {"s fat day -Audio", "search(  ( \3=Audio & fat day )  )"},
                    {"s -Pro day -Audio -Video", "search(  ( \3=Video & day )  )"},
                    {"s " + longWord + " y", "search( xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx )"}};
    for (const auto& [line, tree] : searches) {
        i4_string copy(line.c_str());
        char text[256] = "";
        searchFor(&copy[0])->printable(text, sizeof text);
        EXPECT_EQ(text, std::string(tree)) << line;
    }
    EXPECT_EQ(screen_.type("s day"), "");
    EXPECT_EQ(screen_.handled(), "Not connected to a server.\n");
    EXPECT_EQ(screen_.answer("xs"), "");
}

TEST_F(ConsoleCommands, DownloadsAreStartedAndChangedByNumber) {
    const std::string noResult = "Invalid Result number\n\n";
    EXPECT_EQ(screen_.type("d 1"), noResult);
    screen_.showResults({makeFile("one", 3000, 1).release(), makeFile("two", 3000, 2).release()});
    expect(noResult, {"d", "d 0", "d x", "d 3", "d -1"});
    EXPECT_EQ(screen_.type("d 2"), "");
    EXPECT_EQ(screen_.handled(), "Downloading: two\n");
    EXPECT_EQ(screen_.answer("d 2"), "You are already downloading two.\n");

    Download* download = conClientApp.downloads.getAt(0);
    ASSERT_NE(download, nullptr);
    expect("", {"m", "m 1", "m 0", "m 2 p", "m -1 p", "m 1 v", "m 1 x"});
    expect("Invalid Download number.\n\n", {"m 0 p", "m x p"});
    EXPECT_EQ(screen_.handled(), "");
    for (const auto& [line, priority] : {std::pair{"m 1 low", 0}, {"m 1 h", 2}, {"m 1 n", 1}}) {
        EXPECT_EQ(screen_.type(line), "");
        EXPECT_EQ(download->priority, priority) << line;
    }
    EXPECT_EQ(screen_.answer("m 1 p"), "");
    EXPECT_TRUE(download->isPaused());
    EXPECT_EQ(screen_.answer("m 1 r"), "");
    EXPECT_FALSE(download->isPaused());
    EXPECT_EQ(screen_.type("temp nowhere"),
              "Can't change temporary directory with pending downloads.\nTemp directory is now: nowhere\n");
    EXPECT_EQ(std::string(preferences.tempDir().c_str()), here("temp"));
    EXPECT_EQ(screen_.answer("m 1 c"), "");
    EXPECT_EQ(conClientApp.downloads.count(), 0U);
    EXPECT_EQ(dlPool.count(), 0U);
}

TEST_F(ConsoleCommands, LinksAreReadFieldByField) {
    const std::string hash = "0123456789abcdef0123456789ABCDEF";
    expect("", {"dllink", "dllink tnwk://|files|a|1|" + hash});
    expect("This is not a valid tnwk-link. see help screen for format required.\n",
           {"dllink tnwk://|file|", "dllink tnwk://|file|a b|x|" + hash, "dllink tnwk://|file|a b|12",
            "dllink tnwk://|file|a b|12|", "dllink tnwk://|file|a b|4294967296|" + hash,
            "dllink tnwk://|file|" + std::string(256, 'x') + "|12|" + hash});
    expect("Invalid hash in tnwk-link.\n",
           {"dllink tnwk://|file|a b|12|0123|", "dllink tnwk://|file|a b|12|" + hash + "0|",
            "dllink tnwk://|file|a b|12|" + hash.substr(1) + "g|"});
    EXPECT_EQ(screen_.type("dllink other:|file|a, b|4294967295|" + hash + "|"), "");
    EXPECT_EQ(screen_.handled(), "Downloading: a, b\n");
    Download* download = conClientApp.downloads.getAt(0);
    ASSERT_NE(download, nullptr);
    EXPECT_EQ(download->hash().bytes[1], 0x23);
    EXPECT_EQ(download->partial().fileSize(), 4294967295U);
    screen_.answer("m 1 c");
}

TEST_F(ConsoleCommands, PartsComeFromTheSelectedCollection) {
    EXPECT_EQ(screen_.type("p 1"), "No Collection selected.\n\n");
    Collection collection;
    collection.add(makeFile("part one", 3, 9).release());
    conClientApp.selectedCollection = &collection;
    EXPECT_EQ(screen_.type("p"), "No Collection selected.\n\n");
    expect("Invalid Part number.\n\n", {"p 0", "p x", "p 2"});
    EXPECT_EQ(screen_.type("p 1"), "Downloading: part one\n\n");
    EXPECT_EQ(screen_.handled(), "Downloading: part one\n");
    conClientApp.selectedCollection = nullptr;
    screen_.answer("m 1 c");
}

TEST_F(ConsoleCommands, SharedDirectoriesAreAddedAsTreesAndTakenOutByNumber) {
    const std::string incoming = here("incoming");
    std::filesystem::create_directories("tree/.hidden/below");
    std::filesystem::create_directories("tree/in side/deep");
    std::filesystem::create_directory_symlink("..", "tree/in side/up");
    const std::string tree = here("tree");
    expect("", {"a+ " + tree, "a+ " + here("missing"), "a a  b"});
    EXPECT_EQ(screen_.type("vs"), "(1) " + tree + "\n(2) " + tree + "/in side\n(3) " + tree +
                                      "/in side/deep\n(4) " + incoming + "\n(5) a  b\n");
    expect("Invalid Directory number.\n\n", {"u", "u 0", "u x"});
    expect("", {"u 2", "u 99", "u -1", "u 2", "u 1"});
    EXPECT_EQ(screen_.type("vs"), "(1) " + incoming + "\n(2) a  b\n");
    while (messageQ.process()) continue;
    hashThread.stop();
}

TEST_F(ConsoleCommands, ASaveBeforeTheListsAreReadKeepsThem) {
    for (const char* name : {"known.met", "friend.met"}) writeFile(name, "unread");
    clientApp.saveAll();
    for (const char* name : {"known.met", "friend.met"}) EXPECT_EQ(contentOf(name), "unread") << name;
    EXPECT_TRUE(exists("pref.met"));
}

}  // namespace
