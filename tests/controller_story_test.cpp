// A controller, written here from the bytes of its protocol alone, steers a running client.
#include <gtest/gtest.h>

#include "tests/support/Caller.h"
#include "tests/support/Network.h"

namespace {

std::string message(u32 number, const std::string& payload = {}) { return framed(opcode(number, payload)); }

// Talks to the controller's port. Thread: one.
class Controller : public Caller {
  public:
    using Caller::Caller;
    bool logOn(const std::string& password = "kitpass") {
        return say(opcode(100, text16("kit") + text16(password)));
    }
};

// A client with an open door for a controller.
class ControllerStory : public testing::Test {
  protected:
    ControllerStory() { client.start({"aport " + std::to_string(port), "pass kit kitpass", "-"}); }
    bool consoleWorks() { return client.type("vd", "Total: "); }
    // Whoever was logged on before may not have been missed yet.
    std::unique_ptr<Controller> nextController() {
        std::unique_ptr<Controller> next;
        EXPECT_TRUE(eventually([&] {
            next = std::make_unique<Controller>(port);
            next->logOn();
            next->say(opcode(225));
            return !next->packet().empty();
        })) << client.console().output();
        return next;
    }

    const u32 port = static_cast<u32>(freePort());
    IndexServerProcess index;
    Client client{"leech", index};
};

TEST_F(ControllerStory, DrivesADownloadWhileTheConsoleWorksAndQuits) {
    TemporaryDirectory folder;
    const std::string bytes = someBytes(12'000'000, 8);
    writeFile(folder.file("tawny owl.bin"), bytes);
    Client seed("seed", index);
    seed.start();
    seed.logOn();
    seed.share(folder.path(), index);

    Controller controller(port);
    ASSERT_TRUE(controller.logOn());
    const std::string server = le32(loopbackIp) + le16(index.portNumber());
    controller.send(message(222, server) + message(200, server));
    controller.await(182);
    controller.say(opcode(202, "\1" + text16("tawny")));
    // A list of one file: its hash follows the count.
    const std::string results = controller.await(187);
    ASSERT_EQ(u32At(results, 0), 1U);
    const std::string hash = results.substr(4, 16);
    controller.send(message(207, hash) + message(217));
    EXPECT_EQ(controller.await(188).substr(0, 16), hash);
    controller.say(opcode(208, hash));  // held until a status packet has told of it
    EXPECT_TRUE(consoleWorks());
    const std::string status = controller.await(197, [](const std::string& s) { return u16At(s, 0) == 1; });
    EXPECT_EQ(status.size(), 2U + 13);
    controller.say(opcode(209, hash));
    EXPECT_LE(u32At(status, 2 + 7), bytes.size());
    EXPECT_EQ(controller.await(189), hash);
    EXPECT_TRUE(hasBytes(client.file("incoming/tawny owl.bin"), bytes));
    controller.await(197, [](const std::string& s) { return u16At(s, 0) == 0; });
    EXPECT_TRUE(client.type("vr", "None.")) << "results that went to the controller aren't the console's";
    controller.say(opcode(101));
    EXPECT_EQ(client.console().wait(), 1) << client.console().output();
}

TEST_F(ControllerStory, BadOnesAreDroppedAndTheRestGoesOn) {
    Controller first(port);
    ASSERT_TRUE(first.logOn());
    first.say(opcode(225));
    EXPECT_EQ(u16At(first.await(199), 0), 59U);
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
    // Questions whose answers go to the controller alone, more than the sockets hold.
    std::string questions;
    for (int i = 0; i < 20'000; ++i) questions += message(225);
    // While the first one is told what happens, it is gone from one moment to the next.
    first.send(message(217) + message(219));
    first.await(197);
    first.send(questions);
    first.reset();
    EXPECT_TRUE(consoleWorks());
    // One that never reads costs the others nothing.
    const std::unique_ptr<Controller> next = nextController();
    next->send(questions);
    EXPECT_TRUE(consoleWorks());
    next->reset();

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
    client.quit();
}

TEST_F(ControllerStory, AQuitCommandFromAfarAsksNobodyAndEndsTheClientWithoutAConsole) {
    Controller controller(port);
    controller.logOn();
    controller.say(opcode(102, text16("q")));
    EXPECT_EQ(client.console().wait(), 1) << client.console().output();
    EXPECT_EQ(client.console().output().find("Are you sure"), std::string::npos);
    client.launch({"-", "!"});
    nextController()->say(opcode(101));
    EXPECT_TRUE(client.console().waitFor("Enter commands")) << client.console().output();
    EXPECT_EQ(client.console().wait(), 1);
}

}  // namespace
