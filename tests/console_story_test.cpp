// The program at a console: start, commands, end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <iterator>

#include "tests/support/Process.h"

namespace {

const std::string banner = "Welcome to Tarnwick command line client v16.16.59.\n";
const std::string secondLine = "Enter commands at any time (type '?' for help)\n";

class ConsoleStory : public testing::Test {
  protected:
    void write(const std::string& name, const std::string& bytes) {
        std::ofstream(home_.file(name), std::ios::binary) << bytes;
    }
    std::string read(const std::string& name) {
        std::ifstream file(home_.file(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }
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
    ASSERT_TRUE(client.waitFor(banner));
    ASSERT_TRUE(client.waitFor(secondLine));
    ASSERT_TRUE(client.waitFor("> "));
    client.type("nonsense");
    ASSERT_TRUE(client.waitFor("Unrecognized command. type ? for help\n\n"));
    client.type("");
    ASSERT_TRUE(client.waitFor("Unrecognized command. type ? for help\n\n"));
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
    ASSERT_TRUE(client.waitFor("Unrecognized command. type ? for help\n\n"));
    ASSERT_TRUE(client.waitFor(banner));
    client.closeInput();
    EXPECT_EQ(client.wait(), 1);
}

TEST_F(ConsoleStory, ALineOverTheLimitIsCutAndNotTakenForTwo) {
    Process client(program_, {}, home_.path(), Process::Input::pipe);
    client.type(std::string(600, 'x'));
    client.closeInput();
    EXPECT_EQ(client.wait(), 1);
    EXPECT_EQ(client.output().find("Unrecognized"), client.output().rfind("Unrecognized"));
}

TEST_F(ConsoleStory, EndsInOrderWhenInputEndsOrOutputIsClosed) {
    Process quiet(program_, {}, home_.path(), Process::Input::pipe);
    quiet.closeInput();
    EXPECT_EQ(quiet.wait(), 1);

    Process mute("/bin/sh", {"-c", "exec " + program_ + " >&-"}, home_.path(), Process::Input::pipe);
    mute.type("nonsense");
    mute.type("q");
    mute.type("y");
    EXPECT_EQ(mute.wait(), 1);
}

TEST_F(ConsoleStory, SettingsAndIdentityComeBackByteForByte) {
    write("xx.str", std::string(21, '\n') + "Nichts zu erweitern.\r\n");
    {
        Process client(program_, {"dumax 12 4", "name kit", "port 5001", "lang xx", "mcon 50", "auto -"},
                       home_.path());
        leave(client);
    }
    const std::string settings = read("pref.met");
    std::size_t at = 0;
    for (const char* key :
         {"incoming",  "temp",         "pSize",      "maxNumUp",      "maxDown",    "adminName",
          "adminPass", "pmAllow",      "userMaxUpF", "userMaxDownF",  "maxCon",     "auto",
          "saveCor",   "verifyCancel", "trayCheck",  "servRemove",    "userName",   "password",
          "ipOver",    "lang",         "lineDown",   "adminDoorPort", "maxUpSpeed", "maxDownSpeed",
          "pType",     "pSName",       "pUName",     "pUPass",        "pPort"}) {
        const std::string name(key);
        at = settings.find(std::string{static_cast<char>(name.size()), '\0'} + name, at);
        ASSERT_NE(at, std::string::npos) << key;
    }
    Process client(program_, {"xs", "vo"}, home_.path());
    EXPECT_TRUE(client.waitFor("Nichts zu erweitern.\n"));
    EXPECT_TRUE(client.waitFor("Name:\t\t\tkit\n"));
    EXPECT_TRUE(client.waitFor("Max Download Speed:\t12.00\n"));
    EXPECT_TRUE(client.waitFor("Max Upload Speed:\t4.00\n"));
    EXPECT_TRUE(client.waitFor("Door Port:\t\t5001\n"));
    leave(client);
    EXPECT_EQ(read("pref.met"), settings);
}

TEST_F(ConsoleStory, TwoFreshClientsAreTwoUsers) {
    const TemporaryDirectory other;
    for (const std::string& home : {home_.path(), other.path()}) {
        Process client(program_, {}, home);
        leave(client);
    }
    std::ifstream file(other.file("pref.met"), std::ios::binary);
    const std::string theirs(std::istreambuf_iterator<char>(file), {});
    EXPECT_NE(read("pref.met").substr(6, 16), theirs.substr(6, 16));
}

TEST_F(ConsoleStory, AServerListWrittenByHandIsRead) {
    const std::string bytes("\x0E\1\0\0\0\1\2\3\4\x35\x12\0\0\0\0", 15);
    write("server.met", bytes);
    Process client(program_, {"n 192.0.2.34 65535", "vm", "test"}, home_.path());
    EXPECT_TRUE(client.waitFor("192.0.2.34 added\n\n"));
    EXPECT_TRUE(client.waitFor("(1) 0\t0\t0\t\n"));
    EXPECT_TRUE(client.waitFor("\t1.2.3.4 : 4661\n"));
    EXPECT_TRUE(client.waitFor("\t192.0.2.34 : 65535\n"));
    EXPECT_TRUE(client.waitFor("go.\n"));
    leave(client);
}

TEST_F(ConsoleStory, DamagedFilesAreNamedAndSetAside) {
    const std::vector<std::string> names{"pref.met", "server.met", "known.met", "friend.met", "share.dat"};
    const std::string damaged("\x0E\xFF\xFF\xFF\x7F\1\2", 7);
    for (const std::string& name : names) write(name, damaged);
    Process client(program_, {}, home_.path());
    ASSERT_TRUE(client.waitFor("Done loading shared files."));
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
    const int taken = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    socklen_t size = sizeof address;
    ASSERT_EQ(::bind(taken, reinterpret_cast<sockaddr*>(&address), size), 0);
    ASSERT_EQ(::listen(taken, 1), 0);
    ASSERT_EQ(::getsockname(taken, reinterpret_cast<sockaddr*>(&address), &size), 0);
    {
        Process client(program_, {"port " + std::to_string(ntohs(address.sin_port))}, home_.path());
        leave(client);
    }
    Process client(program_, {}, home_.path());
    EXPECT_TRUE(client.waitFor("Can't Listen for connections. Please adjust your proxy settings"));
    ASSERT_TRUE(client.waitFor(banner));
    client.type("g");
    EXPECT_TRUE(client.waitFor("Not connected to a server.\n"));
    leave(client);
    ::close(taken);
}

}  // namespace
