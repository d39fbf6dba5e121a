// The program at a console: start, commands, end.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "tests/support/Network.h"
#include "tests/support/eventually.h"
#include "tests/support/files.h"

namespace {

const std::string banner = "Welcome to Tarnwick command line client v16.16.59.\n";
const std::string secondLine = "Enter commands at any time (type '?' for help)\n";
const std::string unknown = "Unrecognized command. type ? for help\n\n";
const std::string done = "Done loading shared files.\n";

class ConsoleStory : public testing::Test {
  protected:
    std::string read(const std::string& name) { return contentOf(home_.file(name)); }
    void leave(Process& client) {
        client.type("q");
        client.type("y");
        EXPECT_EQ(client.wait(), 1);
    }

    TemporaryDirectory home_;
    const std::string program_ = programPath("tarnwick");
};

TEST_F(ConsoleStory, StartsAnswersAsksAndLeaves) {
    Process client(program_, {}, home_.path());
    for (const std::string& text : {banner, secondLine}) ASSERT_TRUE(client.waitFor(text));
    ASSERT_TRUE(client.waitFor("> "));
    ASSERT_TRUE(eventually([&] { return client.output().find(done) != std::string::npos; }));
    for (const char* line : {"nonsense", ""}) {
        client.type(line);
        ASSERT_TRUE(client.waitFor(unknown));
    }
    ASSERT_TRUE(client.waitFor("> "));
    client.type("test");
    ASSERT_TRUE(client.waitFor(
        " HashTable32 test:\n i4_strtok test:\n stristr test:\n BoolArray test:\n LL test:\ngo.\n> "));
    client.type("q");
    ASSERT_TRUE(client.waitFor("Are you sure you want to exit?(y or n): \n"));
    client.type("no");
    ASSERT_TRUE(client.waitFor("> "));
    client.type("q");
    client.type("Yes");
    EXPECT_EQ(client.wait(), 1);
}

TEST_F(ConsoleStory, ArgumentsRunBeforeTheBanner) {
    Process client(program_, {"w", "w0", "wx", "nonsense", "-anything"}, home_.path());
    // Texts of the load may stand between them.
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(client.waitFor("Waiting 0\n"));
    ASSERT_TRUE(client.waitFor(unknown));
    ASSERT_TRUE(client.waitFor(banner));
    client.closeInput();
    EXPECT_EQ(client.wait(), 1);
}

TEST_F(ConsoleStory, EndsInOrderWhenInputEndsOrOutputIsClosed) {
    Process quiet(program_, {}, home_.path(), Process::Input::pipe);
    quiet.type(std::string(600, 'x'));  // over the limit, and not taken for two lines
    quiet.closeInput();
    EXPECT_EQ(quiet.wait(), 1);
    EXPECT_NE(quiet.output().find("Unrecognized"), std::string::npos);
    EXPECT_EQ(quiet.output().find("Unrecognized"), quiet.output().rfind("Unrecognized"));

    Process mute("/bin/sh", {"-c", "exec " + program_ + " >&-"}, home_.path(), Process::Input::pipe);
    mute.type("nonsense");
    leave(mute);
}

TEST_F(ConsoleStory, AnOutputThatNobodyReadsHoldsUpNothing) {
    IndexServerProcess index;
    Process client(program_, {}, home_.path(), Process::Input::pipe);
    constexpr int often = 60;  // more than a pipe takes
    const auto askForHelp = [&] {
        for (int n = 0; n < often; ++n) client.type("?");
    };
    askForHelp();
    client.type("n 127.0.0.1 " + index.port());
    client.type("c 1");
    EXPECT_TRUE(index.said("has logged on"));
    client.type("nonsense");
    for (int n = 0; n < often; ++n) ASSERT_TRUE(client.waitFor("https://tarnwick.example")) << n;
    EXPECT_TRUE(client.waitFor(unknown));

    askForHelp();
    client.type("q");
    client.type("y");
    EXPECT_TRUE(eventually([&] {
        siginfo_t ended{};
        return ::waitid(P_PID, static_cast<id_t>(client.pid()), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 &&
               ended.si_pid == client.pid();
    }));
    EXPECT_EQ(client.wait(), 1);
}

TEST_F(ConsoleStory, SettingsServersAndIdentityComeBack) {
    writeFile(home_.file("xx.str"), std::string(21, '\n') + "Nichts zu erweitern.\r\n");
    writeFile(home_.file("server.met"), {"\x0E\1\0\0\0\1\2\3\4\x35\x12\0\0\0\0", 15});
    {
        Process client(program_,
                       {"dumax 12 4", "name kit", "port 5001", "lang xx", "auto -", "n 192.0.2.34 65535"},
                       home_.path());
        leave(client);
    }
    const std::string settings = read("pref.met");
    Process client(program_, {"xs", "vo", "vm"}, home_.path());
    for (const char* text : {"Nichts zu erweitern.\n", "Name:\t\t\tkit\n", "Max Download Speed:\t12.00\n",
                             "Max Upload Speed:\t4.00\n", "Door Port:\t\t5001\n", "\t1.2.3.4 : 4661\n",
                             "\t192.0.2.34 : 65535\n"}) {
        EXPECT_TRUE(client.waitFor(text)) << text;
    }
    leave(client);
    EXPECT_EQ(read("pref.met"), settings);
}

TEST_F(ConsoleStory, DamagedFilesAreNamedAndSetAside) {
    const std::vector<std::string> names{"pref.met", "server.met", "known.met", "friend.met", "share.dat"};
    const std::string damaged("\x0E\xFF\xFF\xFF\x7F\1\2", 7);
    for (const std::string& name : names) writeFile(home_.file(name), damaged);
    Process client(program_, {}, home_.path());
    ASSERT_TRUE(client.waitFor(done));
    client.type("vo");
    ASSERT_TRUE(client.waitFor("Name:\t\t\t"));
    leave(client);
    for (const std::string& name : names) {
        EXPECT_NE(client.output().find("Error loading: " + home_.file(name) + "\n"), std::string::npos)
            << name;
        EXPECT_EQ(read(name + ".bad"), damaged) << name;
        EXPECT_NE(read(name), damaged) << name;
    }
}

TEST_F(ConsoleStory, ATakenPortIsSaidAndTheClientRunsOn) {
    const IndexServerProcess index;
    {
        Process client(program_, {"port " + index.port()}, home_.path());
        leave(client);
    }
    Process client(program_, {}, home_.path());
    EXPECT_TRUE(client.waitFor("Can't Listen for connections. Please adjust your proxy settings"));
    ASSERT_TRUE(client.waitFor(banner));
    client.type("g");
    EXPECT_TRUE(client.waitFor("Not connected to a server.\n"));
    leave(client);
}

}  // namespace
