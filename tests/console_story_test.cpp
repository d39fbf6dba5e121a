// The program at a console: start, commands, end.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "tests/support/Network.h"
#include "tests/support/eventually.h"
#include "tests/support/files.h"

namespace {

const std::string banner = "Welcome to Tarnwick command line client v16.16.59.\n";
const std::string invitation = "Enter commands at any time (type '?' for help)\n";
const std::string prompt = "> ";
const std::string unknown = "Unrecognized command. type ? for help\n\n";
const std::string waiting = "Waiting 0\n";
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

TEST_F(ConsoleStory, RunsItsArgumentsStartsAnswersAsksAndLeaves) {
    Process client(program_, {"w0", "wx", "nonsense"}, home_.path());
    // Texts of the load may be printed between them.
    for (const auto& text : {waiting, waiting, unknown, banner, invitation, prompt}) {
        ASSERT_TRUE(client.waitFor(text)) << text;
    }
    ASSERT_TRUE(eventually([&] { return client.output().find(done) != std::string::npos; }));
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

TEST_F(ConsoleStory, EndsInOrderWhenInputEndsOrOutputIsClosed) {
    Process quiet(program_, {"-anything"}, home_.path(), Process::Input::pipe);
    quiet.type(std::string(600, 'x'));  // over the limit; must not become two lines
    quiet.closeInput();
    EXPECT_EQ(quiet.wait(), 1);
    EXPECT_NE(quiet.output().find(unknown), std::string::npos);
    EXPECT_EQ(quiet.output().find(unknown), quiet.output().rfind(unknown));

    Process mute("/bin/sh", {"-c", "exec " + program_ + " >&-"}, home_.path(), Process::Input::pipe);
    mute.type("nonsense");
    leave(mute);
}

TEST_F(ConsoleStory, AnOutputThatNobodyReadsHoldsUpNothing) {
    IndexServerProcess index;
    Process client(program_, {}, home_.path(), Process::Input::pipe);
    constexpr int often = 60;  // more than a pipe holds
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

TEST_F(ConsoleStory, SettingsServersAndIdentityComeBackAndATakenPortIsSaid) {
    writeFile(home_.file("xx.str"), std::string(21, '\n') + "Nichts zu erweitern.\r\n");
    writeFile(home_.file("server.met"), {"\x0E\1\0\0\0\1\2\3\4\x35\x12\0\0\0\0", 15});
    const IndexServerProcess index;  // its port is in use
    {
        Process client(program_,
                       {"dumax 12 4", "name kit", "port " + index.port(), "lang xx", "n 192.0.2.34 65535"},
                       home_.path());
        leave(client);
    }
    const std::string settings = read("pref.met");
    Process client(program_, {"xs", "vo", "vm"}, home_.path());
    for (const std::string& text :
         {std::string("Can't Listen for connections. Please adjust your proxy settings"),
          std::string("Nichts zu erweitern.\n"), std::string("Name:\t\t\tkit\n"),
          std::string("Max Download Speed:\t12.00\n"), "Door Port:\t\t" + index.port() + "\n",
          std::string("\t1.2.3.4 : 4661\n"), std::string("\t192.0.2.34 : 65535\n")}) {
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

}  // namespace
