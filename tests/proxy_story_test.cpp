// A client behind real proxies, and behind some that misbehave.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>

#include "tests/support/Network.h"
#include "tests/support/ScriptedProxy.h"

namespace {

using namespace std::string_literals;

// Where Debian installs programs, in the order in which a shell of root's looks.
std::string installedProgram(const std::string& name) {
    for (const char* folder : {"/usr/local/bin/", "/usr/sbin/", "/usr/bin/"}) {
        if (::access((folder + name).c_str(), X_OK) == 0) return folder + name;
    }
    return "";
}

bool answersOn(int port) {
    const int call = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool answers = ::connect(call, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(call);
    return answers;
}

enum class Kind { dante, microsocks, tinyproxy };

struct KindOfProxy {
    const char* name;
    const char* program;
    const char* type;  // as --set-proxy names it
};
const KindOfProxy& about(Kind kind) {
    static constexpr KindOfProxy kinds[] = {{"dante", "danted", "socks4"},
                                            {"microsocks", "microsocks", "socks5"},
                                            {"tinyproxy", "tinyproxy", "http"}};
    return kinds[static_cast<int>(kind)];
}

struct Login {
    std::string user;
    std::string password;
};

// A proxy program on loopback, in a session of its own; tinyproxy lets through to the target ports alone.
class RealProxy {
  public:
    explicit RealProxy(Kind kind, std::vector<std::string> targets = {}, Login login = {})
        : kind_(kind), targets_(std::move(targets)), login_(std::move(login)), port_(freePort()) {}
    ~RealProxy() { stop(); }
    RealProxy(const RealProxy&) = delete;
    RealProxy& operator=(const RealProxy&) = delete;

    bool isInstalled() const { return !program().empty(); }
    int port() const { return port_; }
    void start() {
        process_ = std::make_unique<Process>(program(), arguments(), home_.path());
        ASSERT_TRUE(eventually([&] { return answersOn(port_); })) << process_->output();
    }
    void stop() {
        if (!process_) return;
        // With all its children: those of danted would go on with the tunnels that stand.
        ::kill(-process_->pid(), SIGKILL);
        process_.reset();
    }
    std::string setting(const Login& login = {}) const {
        const std::string plain = std::string(about(kind_).type) + ",localhost," + std::to_string(port_);
        return login.user.empty() ? plain : plain + "," + login.user + "," + login.password;
    }

  private:
    std::string program() const { return installedProgram(about(kind_).program); }

    std::vector<std::string> arguments() const {
        const std::string port = std::to_string(port_);
        const std::string config = home_.file("config");
        std::ofstream file(config);
        switch (kind_) {
            case Kind::microsocks: {
                std::vector<std::string> words{"-i", "127.0.0.1", "-p", port};
                if (!login_.user.empty()) {
                    words.insert(words.end(), {"-u", login_.user, "-P", login_.password});
                }
                return words;
            }
            case Kind::tinyproxy:
                file << "Port " << port
                     << "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 600\nMaxClients 50\n";
                for (const std::string& target : targets_) file << "ConnectPort " << target << "\n";
                if (!login_.user.empty())
                    file << "BasicAuth " << login_.user << " " << login_.password << "\n";
                return {"-d", "-c", config};
            case Kind::dante:
                break;
        }
        file << "logoutput: " << home_.file("log") << "\ninternal: 127.0.0.1 port = " << port
             << "\nexternal: 127.0.0.1\nclientmethod: none\nsocksmethod: none\n"
                "client pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n"
                "socks pass { from: 127.0.0.0/8 to: 0.0.0.0/0 }\n";
        return {"-f", config, "-p", home_.file("pid")};
    }

    const Kind kind_;
    const std::vector<std::string> targets_;
    const Login login_;
    const int port_;
    TemporaryDirectory home_;
    std::unique_ptr<Process> process_;
};

void storeProxy(const std::string& directory, const std::string& value) {
    Process process(programPath("tarnwick"), {"--set-proxy", value}, directory, Process::Input::pipe);
    ASSERT_EQ(process.wait(), 0) << process.output();
}

class ProxyStory : public testing::TestWithParam<std::tuple<Kind, bool>> {
  protected:
    void SetUp() override {
        if (!proxy_.isInstalled()) GTEST_SKIP() << about(kind_).program << " isn't installed";
    }

    void setProxy(const std::string& value) { storeProxy(leech_.file(""), value); }

    const Kind kind_ = std::get<0>(GetParam());
    const Login login_ = std::get<1>(GetParam()) ? Login{"kit", "secret"} : Login{};
    TemporaryDirectory folder_;
    IndexServerProcess index_;
    Client seed_{"seed", index_};
    Client leech_{"leech", index_};
    RealProxy proxy_{kind_, {index_.port(), seed_.doorPort()}, login_};
};

std::string nameOfStory(const testing::TestParamInfo<ProxyStory::ParamType>& story) {
    return std::string(about(std::get<0>(story.param)).name) +
           (std::get<1>(story.param) ? "WithPassword" : "");
}

const auto withoutPassword =
    testing::Combine(testing::Values(Kind::dante, Kind::microsocks, Kind::tinyproxy), testing::Values(false));
const auto withPassword =
    testing::Combine(testing::Values(Kind::microsocks, Kind::tinyproxy), testing::Values(true));

TEST_P(ProxyStory, AClientLogsOnSearchesAndDownloadsThroughIt) {
    const std::string bytes = someBytes(12'000'000, 9);
    writeFile(folder_.file("behind.bin"), bytes);
    seed_.start();
    seed_.logOn();
    seed_.share(folder_.path(), index_);

    ASSERT_NO_FATAL_FAILURE(proxy_.start());
    setProxy(proxy_.setting(login_));
    leech_.start();
    leech_.logOn();
    EXPECT_NE(leech_.view("g", "Files: ").find("(firewalled)"), std::string::npos);
    leech_.findAndDownload("behind");
    EXPECT_TRUE(leech_.hasFinished("behind.bin", bytes)) << leech_.console().output();

    // It can't be called, and calls those who want its files.
    writeFile(folder_.file("own/ahead.bin"), bytes.substr(1));
    leech_.share(folder_.file("own"), index_);
    seed_.findAndDownload("ahead");
    EXPECT_TRUE(seed_.hasFinished("ahead.bin", bytes.substr(1))) << seed_.console().output();

    // The way went through the proxy, and no way goes around it.
    proxy_.stop();
    EXPECT_TRUE(
        eventually([&] { return leech_.view("g", "> ").find("Not connected") != std::string::npos; }));
    ASSERT_TRUE(leech_.type("c 1", "Can't connect to")) << leech_.console().output();
    leech_.quit();
}

INSTANTIATE_TEST_SUITE_P(Each, ProxyStory, withoutPassword, nameOfStory);
INSTANTIATE_TEST_SUITE_P(EachWithPassword, ProxyStory, withPassword, nameOfStory);

class ProxyWithPasswordStory : public ProxyStory {};

TEST_P(ProxyWithPasswordStory, AWrongPasswordEndsTheAttemptAndNothingElse) {
    ASSERT_NO_FATAL_FAILURE(proxy_.start());
    for (const Login& login : {Login{"kit", "wrong"}, Login{}}) {
        setProxy(proxy_.setting(login));
        leech_.start();
        ASSERT_TRUE(leech_.type("c 1", "Can't connect to")) << leech_.console().output();
        leech_.quit();
    }
    setProxy(proxy_.setting(login_));
    leech_.start();
    leech_.logOn();
    leech_.quit();
}

INSTANTIATE_TEST_SUITE_P(Each, ProxyWithPasswordStory, withPassword, nameOfStory);

class BadProxyStory : public ProxyStory {};

TEST_P(BadProxyStory, EachAttemptFailsInItsTimeAndTheNextOneWorks) {
    constexpr auto stay = ScriptedProxy::Then::stay;
    // Good ones, but for the last byte.
    const std::string slow[] = {"\0\x5a\0\0\x7f\0\0"s, "\5", "HTTP/1.0 200 Connection established\r\n\r"};
    const std::string bad[] = {"\0\x5b\0\0\0\0\0\0"s, "\5\xff", "HTTP/1.0 403 Forbidden\r\n\r\n"};
    const auto kind = static_cast<std::size_t>(kind_);
    const auto port = static_cast<u16>(proxy_.port());
    setProxy(proxy_.setting());
    leech_.start();
    // The attempt before may have told that it failed, and not be over yet.
    const auto attempt = [&] {
        EXPECT_TRUE(eventually(
            [&] { return leech_.view("c 1", "to ").find("Connecting to ") != std::string::npos; }));
    };
    const auto attemptFails = [&](const char* how) {
        attempt();
        ASSERT_TRUE(leech_.console().waitFor("Can't connect to")) << how << leech_.console().output();
        EXPECT_TRUE(leech_.type("g", "Not connected to a server."));
    };
    attemptFails("nobody listens");
    {
        const ScriptedProxy proxy({}, ScriptedProxy::Then::close, port);
        attemptFails("it closes");
    }
    for (const ProxyTurn& turn :
         {ProxyTurn{"", bad[kind]}, ProxyTurn{"", someBytes(5000)}, ProxyTurn{"", slow[kind], true}}) {
        const ScriptedProxy proxy({turn}, stay, port);
        attemptFails("it refuses, answers nonsense or answers byte by byte");
    }
    {
        const ScriptedProxy proxy({}, stay, port);
        attempt();
        EXPECT_TRUE(leech_.type("g", "Not connected to a server.")) << "the console answers meanwhile";
        EXPECT_TRUE(leech_.console().waitFor("Can't connect to", std::chrono::seconds(20)));
    }
    ASSERT_NO_FATAL_FAILURE(proxy_.start());
    attempt();
    EXPECT_TRUE(leech_.console().waitFor("Connected to: ")) << leech_.console().output();
    leech_.quit();
}

INSTANTIATE_TEST_SUITE_P(Each, BadProxyStory, withoutPassword, nameOfStory);

// Nobody is known for whom a proxy should open it.
TEST(ProxyListener, ADoorForAControllerCannotBeOpened) {
    TemporaryDirectory home;
    for (const char* setting : {"socks4,127.0.0.1,9", "socks5,127.0.0.1,9", "http,127.0.0.1,9"}) {
        storeProxy(home.path(), setting);
        Process client(programPath("tarnwick"), {"-", "vo"}, home.path(), Process::Input::pipe);
        EXPECT_TRUE(client.waitFor(
            "Can't Listen for connections. Please adjust your proxy settings in the options tab."));
        EXPECT_TRUE(client.waitFor("Door Port:"));
        client.closeInput();
        EXPECT_EQ(client.wait(), 1);
    }
}

TEST(ProxyListener, AProxyOfNoKnownTypeIsNone) {
    IndexServerProcess index;
    Client client("client", index);
    storeProxy(client.file(""), "socks4,127.0.0.1,9");
    std::string settings = contentOf(client.file("pref.met"));
    const std::string type = "pType";
    settings.replace(settings.find(type) + type.size(), 4, le32(7));
    writeFile(client.file("pref.met"), settings);
    client.start();
    client.logOn();
    EXPECT_NE(client.view("g", "Files: ").find("(open)"), std::string::npos);
}

TEST(ProxyListener, TakesAConnectionThroughSocks) {
    RealProxy proxy(Kind::dante);
    if (!proxy.isInstalled()) GTEST_SKIP() << "danted isn't installed";
    ASSERT_NO_FATAL_FAILURE(proxy.start());
    makeProtocol(nullptr);
    const auto target = theProtocol->resolve("127.0.0.1", 0, 0);
    for (const i32 type : {I4_PROXY_SOCKS4, I4_PROXY_SOCKS5}) {
        SCOPED_TRACE(type);
        i4_proxy_settings settings;
        settings.pType = type;
        settings.server = "127.0.0.1";
        settings.port = proxy.port();
        makeProtocol(&settings);
        const auto door = theProtocol->listen(0, 10'000, I4_STREAM, target.get());
        ASSERT_TRUE(door);
        auto& listener = static_cast<i4_proxy_sock&>(*door);
        makeProtocol(nullptr);
        const auto caller = theProtocol->connect(*listener.target_address(), I4_STREAM, true);
        ASSERT_TRUE(caller);
        std::unique_ptr<i4_socket> socket;
        std::unique_ptr<i4_address> from;
        ASSERT_TRUE(listener.accept_remote(socket, from));
        EXPECT_EQ(from->get_port(), caller->local_address()->get_port());
        EXPECT_EQ(caller->write("ping", 4), 4);
        char bytes[4];
        socket->readAll(bytes, sizeof bytes);
        EXPECT_EQ(std::string(bytes, 4), "ping");
    }
}

}  // namespace
