// A client with real proxies, and with some that misbehave.
#include <gtest/gtest.h>
#include <signal.h>

#include "tests/support/Caller.h"
#include "tests/support/Network.h"
#include "tests/support/ScriptedProxy.h"

namespace {

using namespace std::string_literals;

// A proxy program and how it is set up.
struct Kind {
    std::string program;
    const char* type;    // as in --set-proxy
    std::string slow;    // a good answer without its last byte
    std::string config;  // contains PORT
};
const Kind dante{"danted", "socks4", "\0\x5a\0\0\x7f\0\0"s,
                 "logoutput: /dev/null\ninternal: 127.0.0.1 port = PORT\nexternal: 127.0.0.1\n"
                 "clientmethod: none\nsocksmethod: none\nclient pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n"
                 "socks pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n"};
const Kind microsocks{"microsocks", "socks5", "\5", ""};
const Kind tinyproxy{"tinyproxy", "http", "HTTP/1.0 200 Connection established\r\n\r",
                     "Port PORT\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 600\n"};

// A proxy program on loopback in its own session. It can require the user kit with the password secret.
// tinyproxy allows only the target ports.
class RealProxy {
  public:
    explicit RealProxy(const Kind& kind, std::vector<std::string> targets = {}, bool withPassword = false)
        : kind_(kind), targets_(std::move(targets)), withPassword_(withPassword) {}
    ~RealProxy() { stop(); }
    RealProxy(const RealProxy&) = delete;
    RealProxy& operator=(const RealProxy&) = delete;

    bool isInstalled() const { return !program().empty(); }
    u16 port() const { return port_; }
    void start() {
        process_ = std::make_unique<Process>(program(), arguments(), home_.path());
        ASSERT_TRUE(eventually([&] { return Caller().connect(port_); })) << process_->output();
    }
    void stop() {
        if (!process_) return;
        // With its children: danted's would continue the open tunnels.
        ::kill(-process_->pid(), SIGKILL);
        process_.reset();
    }
    // The value for --set-proxy. `login` begins with a comma, or is empty.
    std::string setting(const std::string& login = "") const {
        return kind_.type + ",localhost,"s + std::to_string(port_) + login;
    }

  private:
    // Searches the system's directories in the order of root's shell.
    std::string program() const {
        for (const char* folder : {"/usr/local/bin/", "/usr/sbin/", "/usr/bin/"})
            if (exists(folder + kind_.program)) return folder + kind_.program;
        return "";
    }
    std::vector<std::string> arguments() const {
        const std::string port = std::to_string(port_);
        if (&kind_ == &microsocks) {
            std::vector<std::string> words{"-i", "127.0.0.1", "-p", port};
            if (withPassword_) words.insert(words.end(), {"-u", "kit", "-P", "secret"});
            return words;
        }
        const std::string config = home_.file("config");
        std::string text = kind_.config;
        text.replace(text.find("PORT"), 4, port);
        if (&kind_ == &dante) {
            writeFile(config, text);
            return {"-f", config, "-p", home_.file("pid")};
        }
        for (const std::string& target : targets_) text += "ConnectPort " + target + "\n";
        writeFile(config, text + (withPassword_ ? "BasicAuth kit secret\n" : ""));
        return {"-d", "-c", config};
    }

    const Kind& kind_;
    const std::vector<std::string> targets_;
    const bool withPassword_;
    const u16 port_ = static_cast<u16>(freePort());
    TemporaryDirectory home_;
    std::unique_ptr<Process> process_;
};

void storeProxy(const std::string& directory, const std::string& value) {
    Process process(programPath("tarnwick"), {"--set-proxy", value}, directory, Process::Input::pipe);
    ASSERT_EQ(process.wait(), 0) << process.output();
}

class ProxyStory : public testing::TestWithParam<std::pair<const Kind*, bool>> {};

TEST_P(ProxyStory, AClientLogsOnSearchesAndDownloadsThroughIt) {
    const auto& [kind, withPassword] = GetParam();
    IndexServerProcess index;
    Client seed("seed", index);
    Client leech("leech", index);
    RealProxy proxy(*kind, {index.port(), seed.doorPort()}, withPassword);
    if (!proxy.isInstalled()) GTEST_SKIP();
    const std::string bytes = someBytes(3'000'000, 9);
    writeFile(seed.file("own/behind.bin"), bytes);
    seed.start();
    seed.logOn();
    seed.share(seed.file("own"), index);

    ASSERT_NO_FATAL_FAILURE(proxy.start());
    if (withPassword) {
        for (const char* login : {",kit,wrong", ""}) {
            storeProxy(leech.file(""), proxy.setting(login));
            leech.start();
            ASSERT_TRUE(leech.type("c 1", "Can't connect to")) << leech.console().output();
            leech.quit();
        }
    }
    storeProxy(leech.file(""), proxy.setting(withPassword ? ",kit,secret" : ""));
    leech.start();
    leech.logOn();
    EXPECT_NE(leech.view("g", "Files: ").find("(firewalled)"), std::string::npos);
    leech.findAndDownload("behind");
    EXPECT_TRUE(leech.hasFinished("behind.bin", bytes)) << leech.console().output();

    // It can't be called, but calls those who want its files.
    writeFile(leech.file("own/ahead.bin"), bytes.substr(1));
    leech.share(leech.file("own"), index);
    seed.findAndDownload("ahead");
    EXPECT_TRUE(seed.hasFinished("ahead.bin", bytes.substr(1))) << seed.console().output();

    // The connection went through the proxy, and none bypasses it.
    proxy.stop();
    EXPECT_TRUE(eventually([&] { return leech.view("g", "> ").find("Not connected") != std::string::npos; }));
    ASSERT_TRUE(leech.type("c 1", "Can't connect to")) << leech.console().output();
    leech.quit();
}

constexpr auto nameOf = [](const auto& story) {
    return story.param.first->program + (story.param.second ? "WithPassword" : "");
};
INSTANTIATE_TEST_SUITE_P(Each, ProxyStory,
                         testing::Values(std::pair{&dante, false}, std::pair{&microsocks, true},
                                         std::pair{&tinyproxy, true}),
                         nameOf);

// A client and the port of its proxy.
struct Behind {
    Behind(const Kind& which, const IndexServerProcess& index)
        : kind(which), proxy(which, {index.port()}), client("leech", index) {}
    // The previous attempt may have reported its failure before it has ended.
    void attempt() {
        EXPECT_TRUE(eventually(
            [&] { return client.view("c 1", "to ").find("Connecting to ") != std::string::npos; }));
    }
    void hasFailed(const char* how) {
        EXPECT_TRUE(client.console().waitFor("Can't connect to", std::chrono::seconds(20)))
            << kind.program << how << client.console().output();
        EXPECT_TRUE(client.type("g", "Not connected to a server."));
    }
    const Kind& kind;
    RealProxy proxy;
    Client client;
};

TEST(BadProxyStory, EachAttemptFailsInItsTimeAndTheNextOneWorks) {
    constexpr auto stay = ScriptedProxy::Then::stay;
    const IndexServerProcess index;
    Behind behinds[] = {{dante, index}, {microsocks, index}, {tinyproxy, index}};
    std::vector<std::unique_ptr<ScriptedProxy>> stalling;
    for (Behind& behind : behinds) {
        if (!behind.proxy.isInstalled()) GTEST_SKIP() << behind.kind.program << " isn't installed";
        storeProxy(behind.client.file(""), behind.proxy.setting());
        behind.client.start();
        behind.attempt();
        behind.hasFailed("nobody listens");
        for (const bool closes : {true, false}) {
            const ScriptedProxy proxy({{"", behind.kind.slow, true}},
                                      closes ? ScriptedProxy::Then::close : stay, behind.proxy.port());
            behind.attempt();
            behind.hasFailed(closes ? "it answers byte by byte and closes" : "it answers byte by byte");
        }
        stalling.push_back(
            std::make_unique<ScriptedProxy>(std::vector<ProxyTurn>{}, stay, behind.proxy.port()));
        behind.attempt();
        EXPECT_TRUE(behind.client.type("g", "Not connected to a server.")) << "the console answers meanwhile";
    }
    for (Behind& behind : behinds) behind.hasFailed("it stalls");
    stalling.clear();
    for (Behind& behind : behinds) {
        ASSERT_NO_FATAL_FAILURE(behind.proxy.start());
        behind.attempt();
        EXPECT_TRUE(behind.client.console().waitFor("Connected to: ")) << behind.client.console().output();
        behind.client.quit();
    }
}

}  // namespace
