// Every command: what it answers to good and bad input, and what it does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
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

namespace {

using testing::ElementsAre;
using std::string_literals::operator""s;
using testing::EndsWith;

class ConsoleCommands : public testing::Test {
  protected:
    struct Case {
        const char* line;
        std::string says;
        std::string becomes;  // the setting that the group is about
    };
    void check(const std::function<std::string()>& setting, const std::vector<Case>& cases) {
        for (const Case& row : cases) {
            EXPECT_EQ(screen_.type(row.line), row.says) << row.line;
            EXPECT_EQ(setting(), row.becomes) << row.line;
        }
    }
    std::string here(const std::string& name) { return preferences.workDir.c_str() + ("/" + name); }

    Screen screen_;
};

const std::string invalid = "Invalid arguments.\n";

std::string limits() {
    return std::to_string(static_cast<int>(preferences.userMaxDownF)) + " " +
           std::to_string(static_cast<int>(preferences.userMaxUpF));
}

TEST_F(ConsoleCommands, WordsAreComparedWhole) {
    const std::string unknown = "Unrecognized command. type ? for help\n\n";
    for (const char* line : {"", " ,\t\"", "A", "vrx", "v", "nonsense vo", "vo\r"})
        EXPECT_EQ(screen_.type(line), unknown) << line;
    for (const char* line : {"t", "vc", " \"t", "t,5"}) EXPECT_EQ(screen_.type(line), "") << line;
    EXPECT_THAT(screen_.type("?"), EndsWith("quit: q\n\nhttps://tarnwick.example\n"));
}

TEST_F(ConsoleCommands, SettingsTakeWhatIsGoodAndNameWhatIsNot) {
    check([] { return std::string(preferences.getName().c_str()); },
          {{"name kit", "ok.\n", "kit"}, {"name", invalid, "kit"}, {"name \"a b\"", "ok.\n", "a"}});
    check(limits, {{"dumax 20 4", "Done.\n", "12 4"},
                   {"dumax 14,4", "Done.\n", "14 4"},
                   {"dumax 0 8", "Done.\n", "32 8"},
                   {"dumax 5", invalid, "32 8"},
                   {"dumax", invalid, "32 8"},
                   {"dumax -7 none", "Done.\n", "0 0"}});
    check([] { return std::to_string(static_cast<int>(preferences.lineDown)); },
          {{"line 300", "Done.\n", "300"}, {"line", invalid, "300"}, {"line x", "Done.\n", "0"}});
    check([] { return std::to_string(preferences.maxCon.get()); }, {{"mcon 50", "Done.\n", "50"},
                                                                    {"mcon 60x", "", "50"},
                                                                    {"mcon", "", "50"},
                                                                    {"mcon 4294967297", "", "50"}});
    const std::string later = "Port will change when you restart.\n";
    check([] { return std::to_string(preferences.doorPort.get()); }, {{"port 5001", later, "5001"},
                                                                      {"port", invalid, "5001"},
                                                                      {"port 0", invalid, "5001"},
                                                                      {"port x", invalid, "5001"},
                                                                      {"port 65536", invalid, "5001"},
                                                                      {"port 4294967297", invalid, "5001"}});
    check([] { return std::to_string(preferences.adminDoorPort.get()); }, {{"aport 5002", later, "5002"},
                                                                           {"aport", invalid, "5002"},
                                                                           {"aport 0", invalid, "5002"},
                                                                           {"aport -1", invalid, "5002"}});
    check([] { return preferences.adminName().c_str() + (":"s + preferences.adminPass().c_str()); },
          {{"pass kit kitpass", "", "kit:kitpass"},
           {"pass onlyname", "", ":"},
           {"pass a b c", "", "a:b"},
           {"pass", "", ":"}});
    check([] { return std::string(preferences.stringFile().c_str()); },
          {{"lang xx", "ok.\n", "xx.str"}, {"lang", invalid, "xx.str"}});
    check([] { return std::to_string(conClientApp.testNumber.get()); }, {{"test 7", "Number set.\n", "7"}});
}

TEST_F(ConsoleCommands, SwitchesGoOffWithADash) {
    const struct {
        const char* name;
        std::function<int()> value;
    } switches[] = {{"auto", [] { return preferences.autoConnect.get(); }},
                    {"save", [] { return preferences.saveCor.get(); }},
                    {"asr", [] { return preferences.servRemove.get(); }},
                    {"verbose", [] { return static_cast<int>(theLog->verbose); }}};
    for (const auto& [name, value] : switches) {
        for (const auto& [argument, state] :
             {std::pair{" -", 0}, {"", 1}, {" -x", 0}, {" x", 1}, {" -", 0}}) {
            EXPECT_EQ(screen_.type(std::string(name) + argument), "");
            EXPECT_EQ(value(), state) << name << argument;
        }
    }
}

TEST_F(ConsoleCommands, DirectoriesTakeTheRestOfTheLine) {
    check([] { return std::string(preferences.incomingDir().c_str()); },
          {{"in", "", here("incoming")}, {"in ", "", here("incoming")}});
    const std::string odd = here("odd, \"name\" ");
    EXPECT_EQ(screen_.type("in " + odd), "Incoming directory is now: " + odd + "\n");
    EXPECT_EQ(preferences.incomingDir(), odd.c_str());
    EXPECT_TRUE(std::filesystem::is_directory(odd));
    EXPECT_EQ(screen_.type("temp,other temp"), "Temp directory is now: other temp\n");
    EXPECT_EQ(preferences.tempDir(), "other temp");
    EXPECT_EQ(screen_.type("temp"), "");
    screen_.type("in " + here("incoming"));
    screen_.type("temp " + here("temp"));
}

TEST_F(ConsoleCommands, ServersAreAddedByAddressAndTakenByNumber) {
    EXPECT_EQ(screen_.type("n 192.0.2.34"), "192.0.2.34 added\n\n");
    EXPECT_EQ(screen_.type("n 192.0.2.35 5000"), "192.0.2.35 added\n\n");
    for (const char* line : {"n", "n example.org", "n 1.2.3", "n 1.2.3.4.5", "n 1.2.3.256", "n 1.2.3.4 0",
                             "n 1.2.3.4 x", "n 1.2.3.4 65536", "n 0.0.0.0"}) {
        EXPECT_EQ(screen_.type(line), "Invalid arguments\n") << line;
    }
    EXPECT_EQ(screen_.type("vm"), "\n(1) \n\t192.0.2.34 : 4661\n(2) \n\t192.0.2.35 : 5000\n");

    const std::string badNumber = "Invalid server number\n\n";
    for (const char* line : {"c 0", "c foo"}) EXPECT_EQ(screen_.type(line), badNumber) << line;
    for (const char* line : {"c 3", "c -1", "c 65537", "c 4294967297"}) {
        EXPECT_EQ(screen_.answer(line), "") << line;
    }
    serverPool.setSocketPool(&clientApp.socketPool);
    EXPECT_EQ(screen_.type("c 2"), "");
    EXPECT_EQ(screen_.handled(), "Connecting to 192.0.2.35 ....\n");
    EXPECT_EQ(screen_.answer("c"), "Already trying to connect.\n");
    EXPECT_EQ(screen_.answer("x"), "");
    EXPECT_EQ(screen_.answer("c 1"), "Connecting to 192.0.2.34 ....\n");
    screen_.answer("x");

    for (const char* line : {"b", "b 0", "b x", "b 3", "b -1"}) {
        EXPECT_EQ(screen_.type(line), badNumber) << line;
    }
    EXPECT_EQ(screen_.type("b 1"), "Server Removed.\n\n");
    EXPECT_EQ(screen_.type("vm"), "\n(1) \n\t192.0.2.35 : 5000\n");
    screen_.type("b 1");
    EXPECT_EQ(screen_.type("vm"), "None.\n");
}

TEST_F(ConsoleCommands, ASearchTakesFourWordsAndTheLastType) {
    EXPECT_EQ(screen_.type("xs"), "No search to extend.\n");
    for (const char* line : {"s", "s -Audio", "s -a -b -c -d day"})
        EXPECT_EQ(screen_.type(line), "No search string.\n\n") << line;
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
    auto results = std::make_unique<FileList>();
    for (const char* name : {"one", "two"}) {
        auto file = std::make_unique<FileMeta>();
        file->setName(name);
        file->setInt(TAG_SIZE, 3000);
        file->hash.bytes.fill(static_cast<u8>(name[0]));
        results->add(file.release());
    }
    screen_.setResults(results.release(), 0);
    for (const char* line : {"d", "d 0", "d x", "d 3", "d -1"}) {
        EXPECT_EQ(screen_.type(line), noResult) << line;
    }
    EXPECT_EQ(screen_.type("d 2"), "");
    EXPECT_EQ(screen_.handled(), "Downloading: two\n");
    EXPECT_EQ(screen_.answer("d 2"), "You are already downloading two.\n");

    Download* download = conClientApp.downloads.getAt(0);
    ASSERT_NE(download, nullptr);
    for (const char* line : {"m", "m 1", "m 0", "m 2 p", "m -1 p", "m 1 v", "m 1 x"}) {
        EXPECT_EQ(screen_.answer(line), "") << line;
    }
    for (const char* line : {"m 0 p", "m x p"})
        EXPECT_EQ(screen_.type(line), "Invalid Download number.\n\n") << line;
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
    const std::string badLink = "This is not a valid tnwk-link. see help screen for format required.\n";
    const std::string badHash = "Invalid hash in tnwk-link.\n";
    const struct {
        std::string line;
        std::string says;
    } cases[] = {{"dllink", ""},
                 {"dllink tnwk://|files|a|1|" + hash, ""},
                 {"dllink tnwk://|file|", badLink},
                 {"dllink tnwk://|file|a b|x|" + hash, badLink},
                 {"dllink tnwk://|file|a b|12", badLink},
                 {"dllink tnwk://|file|a b|12|", badLink},
                 {"dllink tnwk://|file|a b|4294967296|" + hash, badLink},
                 {"dllink tnwk://|file|a b|12|0123|", badHash},
                 {"dllink tnwk://|file|a b|12|" + hash + "0|", badHash},
                 {"dllink tnwk://|file|a b|12|" + hash.substr(1) + "g|", badHash}};
    for (const auto& [line, says] : cases) EXPECT_EQ(screen_.answer(line), says) << line;
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
    auto member = std::make_unique<FileMeta>();
    member->setName("part one");
    member->setInt(TAG_SIZE, 3);
    member->hash.bytes.fill(9);
    collection.add(member.release());
    conClientApp.selectedCollection = &collection;
    EXPECT_EQ(screen_.type("p"), "No Collection selected.\n\n");
    for (const char* line : {"p 0", "p x", "p 2"})
        EXPECT_EQ(screen_.type(line), "Invalid Part number.\n\n") << line;
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
    const auto shared = [] {
        std::vector<i4_string> dirs;
        clientApp.getSharedDirs(dirs);
        std::vector<std::string> out;
        for (const i4_string& dir : dirs) out.emplace_back(dir.c_str());
        return out;
    };
    for (const char* line : {"a", "a ", "a+", "a+ "}) EXPECT_EQ(screen_.type(line), "");
    EXPECT_EQ(screen_.type("a+ " + tree), "");
    EXPECT_THAT(shared(), ElementsAre(tree, tree + "/in side", tree + "/in side/deep", incoming));
    EXPECT_EQ(screen_.type("a+ " + here("missing")), "");
    EXPECT_EQ(screen_.type("a a  b"), "");
    EXPECT_EQ(screen_.type("vs"), "(1) " + tree + "\n(2) " + tree + "/in side\n(3) " + tree +
                                      "/in side/deep\n(4) " + incoming + "\n(5) a  b\n");
    for (const char* line : {"u", "u 0", "u x"})
        EXPECT_EQ(screen_.type(line), "Invalid Directory number.\n\n") << line;
    for (const char* line : {"u 2", "u 99", "u 2", "u 1"}) EXPECT_EQ(screen_.type(line), "");
    EXPECT_THAT(shared(), ElementsAre(incoming, "a  b"));
    while (messageQ.process()) continue;
    hashThread.stop();
}

TEST_F(ConsoleCommands, ASaveBeforeTheListsAreReadKeepsThem) {
    for (const char* name : {"known.met", "friend.met"}) std::ofstream(name) << "unread";
    clientApp.saveAll();
    for (const char* name : {"known.met", "friend.met"}) {
        std::ifstream file(name);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), "unread") << name;
    }
    EXPECT_TRUE(std::filesystem::exists("pref.met"));
}

TEST_F(ConsoleCommands, TheSelfTestsPass) {
    EXPECT_EQ(screen_.type("test"),
              " HashTable32 test:\n i4_strtok test:\n stristr test:\n BoolArray test:\n LL test:\ngo.\n");
}

}  // namespace
