// The program at a console: start, commands, end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "tests/support/Process.h"

namespace {

const std::string banner =
    "Welcome to Tarnwick command line client v16.16.59.\nEnter commands at any time (type '?' for help)\n";

class ConsoleStory : public testing::Test {
  protected:
    TemporaryDirectory home_;
    const std::string program_ = programPath("tarnwick");
};

TEST_F(ConsoleStory, StartsAnswersAsksAndLeaves) {
    Process client(program_, {}, home_.path());
    ASSERT_TRUE(client.waitFor(banner));
    ASSERT_TRUE(client.waitFor("> "));
    client.type("nonsense");
    ASSERT_TRUE(client.waitFor("Unrecognized command. type ? for help\n\n> "));
    client.type("");
    ASSERT_TRUE(client.waitFor("Unrecognized command. type ? for help\n\n> "));
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
    ASSERT_TRUE(client.waitFor("Waiting 0\nWaiting 0\nWaiting 0\nUnrecognized command. type ? for help\n\n" +
                               banner));
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

}  // namespace
