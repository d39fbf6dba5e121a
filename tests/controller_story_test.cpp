// A controller that this test implements from the bytes of its protocol controls a running client.
#include <gtest/gtest.h>

#include "protocol/ControllerProtocol.h"
#include "tests/support/Caller.h"
#include "tests/support/Network.h"

namespace {

std::string message(u32 number, const std::string& payload = {}) { return framed(opcode(number, payload)); }

// A connection to the controller's port. Thread: one.
class Controller : public Caller {
  public:
    using Caller::Caller;
    bool logOn(const std::string& password = "kitpass") {
        return say(opcode(CTL_LOGON, text16("kit") + text16(password)));
    }
};

// A client whose port for controllers is open.
class ControllerStory : public testing::Test {
  protected:
    ControllerStory() { client.start({"aport " + std::to_string(port), "pass kit kitpass", "-"}); }
    bool consoleWorks() { return client.type("vd", "Total: "); }
    // The client may not have noticed yet that the previous controller has gone.
    std::unique_ptr<Controller> nextController() {
        std::unique_ptr<Controller> next;
        EXPECT_TRUE(eventually([&] {
            next = std::make_unique<Controller>(port);
            next->logOn();
            next->say(opcode(CTL_GET_SETTINGS));
            return !next->packet().empty();
        })) << client.console().output();
        return next;
    }

    const u32 port = static_cast<u32>(freePort());
    IndexServerProcess index;
    Client client{"leech", index};
};

TEST_F(ControllerStory, DrivesADownloadWhileTheConsoleWorksVanishesAndQuits) {
    const std::string bytes = someBytes(3'000'000, 8);
    Client seed("seed", index);
    writeFile(seed.file("own/tawny owl.bin"), bytes);
    seed.start();
    seed.logOn();
    seed.share(seed.file("own"), index);

    auto controller = std::make_unique<Controller>(port);
    ASSERT_TRUE(controller->logOn());
    const std::string server = le32(loopbackIp) + le16(index.portNumber());
    controller->send(message(222, server) + message(200, server) + message(102, text16("dumax 400 400")));
    controller->await(CTL_CONNECTED);
    controller->say(opcode(CTL_SEARCH, "\1" + text16("tawny")));
    // A list of one file: its hash follows the count.
    const std::string results = controller->await(CTL_RESULTS);
    ASSERT_EQ(u32At(results, 0), 1U);
    const std::string hash = results.substr(4, 16);
    controller->send(message(207, hash) + message(217) + message(219));
    EXPECT_EQ(controller->await(CTL_DOWNLOAD_ADDED).substr(0, 16), hash);
    controller->say(opcode(CTL_PAUSE, hash));  // paused until a status packet has reported it
    EXPECT_TRUE(consoleWorks());
    const std::string status =
        controller->await(CTL_DOWNLOAD_STATUS, [](const std::string& s) { return u16At(s, 0) == 1; });
    EXPECT_EQ(status.size(), 2U + 13);
    EXPECT_LT(u32At(status, 2 + 7), bytes.size());
    controller->send(message(209, hash) + message(102, text16("dumax 0 0")));
    EXPECT_EQ(controller->await(CTL_DOWNLOAD_REMOVED), hash);
    EXPECT_TRUE(hasBytes(client.file("incoming/tawny owl.bin"), bytes));
    EXPECT_TRUE(client.type("vr", "None.")) << "results that went to the controller aren't the console's";

    // This one disconnects while events are sent to it. Another one never reads: the answers to its requests,
    // which only it gets, exceed what the sockets hold.
    std::string questions;
    for (int i = 0; i < 20'000; ++i) questions += message(225);
    controller->send(questions);
    controller->reset();
    EXPECT_TRUE(consoleWorks());
    controller = nextController();
    controller->send(questions);
    EXPECT_TRUE(consoleWorks());
    controller->reset();
    // A request may be lost if its sender disconnects at once: each stays connected until the client ends.
    controller = nextController();
    controller->say(opcode(CTL_QUIT));
    EXPECT_EQ(client.console().wait(), 1) << client.console().output();
    client.launch({"-", "!"});
    controller = nextController();
    controller->say(opcode(CTL_QUIT));
    EXPECT_TRUE(client.console().waitFor("Enter commands")) << client.console().output();
    EXPECT_EQ(client.console().wait(), 1);
}

TEST_F(ControllerStory, BadOnesAreDroppedAndTheRestGoesOn) {
    Controller first(port);
    ASSERT_TRUE(first.logOn());
    first.say(opcode(CTL_GET_SETTINGS));
    EXPECT_EQ(u16At(first.await(CTL_SETTINGS), 0), 59U);
    Controller second(port);
    second.logOn();
    EXPECT_TRUE(second.isEnded());
    EXPECT_TRUE(client.console().waitFor("Another Control attempt"));
    for (const std::string& bytes : {std::string("GET / HTTP/1.0\r\n\r\n"), message(225), "\xE3" + le32(0),
                                     "\xE3" + le32(0xFFFFFFFF) + "d", message(100, "\xFF\xFFx")}) {
        Controller garbage(port);
        garbage.send(bytes);
        EXPECT_TRUE(garbage.isEnded());
    }
    for (int i = 0; i < 5; ++i) {
        Controller guesser(port);
        guesser.logOn("guess");
        EXPECT_TRUE(guesser.isEnded());
        EXPECT_TRUE(client.console().waitFor("Invalid name and pass"));
    }
    Controller late(port);
    late.logOn();
    EXPECT_TRUE(late.isEnded());
    EXPECT_TRUE(consoleWorks());
    first.say(opcode(CTL_COMMAND, text16("q")));
    EXPECT_EQ(client.console().wait(), 1) << client.console().output();
    EXPECT_EQ(client.console().output().find("Are you sure"), std::string::npos) << "nobody is asked";
}

}  // namespace
