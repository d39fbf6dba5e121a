// A controller, written here from the bytes of its protocol alone, steers a running client.
#include <gtest/gtest.h>
#include <poll.h>

#include "tests/support/Conversation.h"
#include "tests/support/Network.h"

namespace {

std::string le16(std::size_t value) { return {static_cast<char>(value), static_cast<char>(value >> 8)}; }
std::string text16(const std::string& text) { return le16(text.size()) + text; }
std::string message(unsigned opcode, const std::string& payload = {}) {
    return framed(std::string(1, static_cast<char>(opcode)) + payload);
}
unsigned u16At(const std::string& bytes, std::size_t at) {
    return static_cast<u8>(bytes.at(at)) | static_cast<unsigned>(static_cast<u8>(bytes.at(at + 1))) << 8;
}
unsigned u32At(const std::string& bytes, std::size_t at) {
    return u16At(bytes, at) | u16At(bytes, at + 2) << 16;
}

// Talks to the controller's port. Thread: one.
class Controller {
  public:
    explicit Controller(int port) : wire_(static_cast<u32>(port)) {}

    bool send(const std::string& bytes) { return wire_.send(bytes); }
    bool logOn(const std::string& name = "kit", const std::string& password = "kitpass") {
        return send(message(100, text16(name) + text16(password)));
    }
    // The body of the next message; empty when the connection has ended or time ran out.
    std::string next(std::chrono::milliseconds limit = patience) {
        if (!readable(limit)) return {};
        const std::string header = wire_.read(5);
        if (header.size() < 5 || header[0] != '\xE3') return {};
        return wire_.read(u32At(header, 1));
    }
    // Messages up to the first with that opcode that `fits`; that one's payload.
    std::string await(unsigned opcode, const std::function<bool(const std::string&)>& fits = {}) {
        const auto deadline = std::chrono::steady_clock::now() + transferPatience;
        while (std::chrono::steady_clock::now() < deadline) {
            const std::string body = next(transferPatience);
            if (body.empty()) break;
            if (static_cast<u8>(body[0]) == opcode && (!fits || fits(body.substr(1)))) return body.substr(1);
        }
        ADD_FAILURE() << "no message " << opcode;
        return {};
    }
    bool isLetGo() { return readable(patience) && wire_.isEnded(); }
    void vanish() { wire_.reset(); }

  private:
    bool readable(std::chrono::milliseconds limit) {
        pollfd watched{wire_.descriptor(), POLLIN, 0};
        return ::poll(&watched, 1, static_cast<int>(limit.count())) > 0;
    }

    Caller wire_;
};

// A client with an open door for a controller.
class ControllerStory : public testing::Test {
  protected:
    void start(const std::vector<std::string>& more = {}) {
        Process first(program_,
                      {"port " + std::to_string(freePort()), "name leech", "aport " + std::to_string(port_),
                       "pass kit kitpass"},
                      home_.path(), Process::Input::pipe);
        first.closeInput();
        ASSERT_EQ(first.wait(), 1) << first.output();
        std::vector<std::string> arguments = more;
        arguments.insert(arguments.begin(), "-");
        client_ = std::make_unique<Process>(program_, arguments, home_.path());
        ASSERT_TRUE(eventually(
            [&] {
                return client_->output().find("Done loading shared files.") != std::string::npos &&
                       client_->output().find("\n> ") != std::string::npos;
            },
            patience))
            << client_->output();
    }
    bool consoleWorks() {
        client_->type("vd");
        return client_->waitFor("Total: ");
    }
    void TearDown() override {
        if (!client_) return;
        for (const char* complaint : {"Sanitizer", "runtime error:", "lock order:"}) {
            EXPECT_EQ(client_->output().find(complaint), std::string::npos) << client_->output();
        }
    }

    const std::string program_ = programPath("tarnwick");
    const int port_ = freePort();
    TemporaryDirectory home_;
    std::unique_ptr<Process> client_;
};

TEST_F(ControllerStory, DrivesADownloadWhileTheConsoleWorksAndQuits) {
    TemporaryDirectory folder;
    const std::string bytes = bytesOfSeed(8, 12'000'000);
    writeFile(folder.file("tawny owl.bin"), bytes);
    IndexServerProcess index;
    Client seed("seed", index);
    seed.start();
    seed.logOn();
    seed.share(folder.path(), index);
    start();

    Controller controller(port_);
    ASSERT_TRUE(controller.logOn());
    const std::string server =
        std::string("\x7F\0\0\1", 4) + le16(static_cast<std::size_t>(std::stoi(index.port())));
    controller.send(message(222, server) + message(200, server));
    controller.await(182);
    controller.send(message(202, "\1" + text16("tawny")));
    // A list of one file: its hash follows the count.
    const std::string results = controller.await(187);
    ASSERT_EQ(u32At(results, 0), 1U);
    const std::string hash = results.substr(4, 16);
    controller.send(message(207, hash) + message(217));
    EXPECT_EQ(controller.await(188).substr(0, 16), hash);
    controller.send(message(208, hash));  // held until a status packet has told of it
    EXPECT_TRUE(consoleWorks());
    const std::string status = controller.await(197, [](const std::string& s) { return u16At(s, 0) == 1; });
    EXPECT_EQ(status.size(), 2U + 13);
    controller.send(message(209, hash));
    EXPECT_LE(u32At(status, 2 + 7), bytes.size());
    EXPECT_EQ(controller.await(189), hash);
    EXPECT_TRUE(hasBytes(home_.file("incoming/tawny owl.bin"), bytes));
    controller.await(197, [](const std::string& s) { return u16At(s, 0) == 0; });
    // Results that went to the controller aren't the console's.
    client_->type("vr");
    EXPECT_TRUE(client_->waitFor("None."));

    controller.send(message(101));
    EXPECT_EQ(client_->wait(), 1) << client_->output();
}

TEST_F(ControllerStory, BadOnesAreDroppedAndTheRestGoesOn) {
    start();
    Controller first(port_);
    ASSERT_TRUE(first.logOn());
    first.send(message(225));
    EXPECT_EQ(u16At(first.await(199), 0), 59U);

    Controller second(port_);
    second.logOn();
    EXPECT_TRUE(second.isLetGo());
    EXPECT_TRUE(client_->waitFor("Another Control attempt"));
    for (const std::string& bytes :
         {std::string("GET / HTTP/1.0\r\n\r\n"), message(225), std::string("\xE3\0\0\0\0", 5),
          std::string("\xE3\xFF\xFF\xFF\xFF\x64", 6), message(100, "\xFF\xFFx")}) {
        Controller garbage(port_);
        garbage.send(bytes);
        EXPECT_TRUE(garbage.isLetGo());
    }
    // While the first one is told what happens, it is gone from one moment to the next.
    first.send(message(217) + message(219));
    first.await(197);
    for (int i = 0; i < 100; ++i) first.send(message(102, text16("?")));
    first.vanish();
    EXPECT_TRUE(consoleWorks());

    std::unique_ptr<Controller> next;
    ASSERT_TRUE(eventually(
        [&] {
            next = std::make_unique<Controller>(port_);
            next->logOn();
            next->send(message(225));
            return !next->next().empty();
        },
        patience));
    // One that never reads costs the others nothing.
    for (int i = 0; i < 500; ++i) next->send(message(102, text16("?")));
    EXPECT_TRUE(consoleWorks());
    next->vanish();

    for (int i = 0; i < 5; ++i) {
        Controller guesser(port_);
        guesser.logOn("kit", "guess");
        EXPECT_TRUE(guesser.isLetGo());
        EXPECT_TRUE(client_->waitFor("Invalid name and pass"));
    }
    Controller late(port_);
    late.logOn();
    EXPECT_TRUE(late.isLetGo());
    EXPECT_TRUE(consoleWorks());
    client_->type("q");
    client_->type("y");
    EXPECT_EQ(client_->wait(), 1);
}

TEST_F(ControllerStory, AQuitCommandFromAfarAsksNobodyAndEndsTheClientWithoutAConsole) {
    start();
    {
        Controller controller(port_);
        controller.logOn();
        controller.send(message(102, text16("nonsense")));
        EXPECT_EQ(controller.await(180), text16("Unrecognized command. type ? for help\n"));
        controller.send(message(102, text16("q")));
        EXPECT_EQ(client_->wait(), 1) << client_->output();
    }
    EXPECT_EQ(client_->output().find("Are you sure"), std::string::npos);
    client_ = std::make_unique<Process>(program_, std::vector<std::string>{"-", "!"}, home_.path());
    std::unique_ptr<Controller> controller;
    ASSERT_TRUE(eventually(
        [&] {
            controller = std::make_unique<Controller>(port_);
            controller->logOn();
            controller->send(message(225));
            return !controller->next(std::chrono::seconds(1)).empty();
        },
        patience));
    controller->send(message(101));
    EXPECT_TRUE(client_->waitFor("Enter commands")) << client_->output();
    EXPECT_EQ(client_->wait(), 1);
}

}  // namespace
