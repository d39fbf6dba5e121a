// A client behind real proxies: it logs on, searches and downloads through each of them.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "tests/support/Network.h"

namespace {

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

struct Login {
    std::string user;
    std::string password;
};

// A proxy program on loopback; tinyproxy lets through to the target ports alone.
class RealProxy {
  public:
    enum Kind { microsocks, tinyproxy };

    RealProxy(Kind kind, std::vector<std::string> targets, Login login = {})
        : kind_(kind), targets_(std::move(targets)), login_(std::move(login)), port_(freePort()) {}
    ~RealProxy() { stop(); }
    RealProxy(const RealProxy&) = delete;
    RealProxy& operator=(const RealProxy&) = delete;

    static const char* nameOf(Kind kind) {
        static constexpr const char* names[] = {"microsocks", "tinyproxy"};
        return names[kind];
    }

    void start() {
        process_ = std::make_unique<Process>(installedProgram(nameOf(kind_)), arguments(), home_.path(),
                                             Process::Input::pipe);
        ASSERT_TRUE(eventually([&] { return answersOn(port_); })) << process_->output();
    }
    void stop() {
        if (!process_) return;
        process_->signal(SIGTERM);
        process_->wait();
        process_.reset();
    }
    std::string setting(const Login& login = {}) const {
        static constexpr const char* types[] = {"socks5", "http"};
        const std::string plain = std::string(types[kind_]) + ",localhost," + std::to_string(port_);
        return login.user.empty() ? plain : plain + "," + login.user + "," + login.password;
    }

  private:
    std::vector<std::string> arguments() const {
        const std::string port = std::to_string(port_);
        const std::string config = home_.file("config");
        if (kind_ == microsocks) {
            std::vector<std::string> words{"-i", "127.0.0.1", "-p", port};
            if (!login_.user.empty()) words.insert(words.end(), {"-u", login_.user, "-P", login_.password});
            return words;
        }
        std::ofstream file(config);
        file << "Port " << port << "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 600\nMaxClients 50\n";
        for (const std::string& target : targets_) file << "ConnectPort " << target << "\n";
        if (!login_.user.empty()) file << "BasicAuth " << login_.user << " " << login_.password << "\n";
        return {"-d", "-c", config};
    }

    const Kind kind_;
    const std::vector<std::string> targets_;
    const Login login_;
    const int port_;
    TemporaryDirectory home_;
    std::unique_ptr<Process> process_;
};

class ProxyStory : public testing::TestWithParam<std::tuple<RealProxy::Kind, bool>> {
  protected:
    void SetUp() override {
        const char* name = RealProxy::nameOf(kind_);
        if (installedProgram(name).empty()) GTEST_SKIP() << name << " isn't installed";
    }

    void setProxy(const std::string& value) {
        Process process(programPath("tarnwick"), {"--set-proxy", value}, leech_.file(""),
                        Process::Input::pipe);
        ASSERT_EQ(process.wait(), 0) << process.output();
    }

    const RealProxy::Kind kind_ = std::get<0>(GetParam());
    const Login login_ = std::get<1>(GetParam()) ? Login{"kit", "secret"} : Login{};
    TemporaryDirectory folder_;
    IndexServerProcess index_;
    Client seed_{"seed", index_};
    Client leech_{"leech", index_};
    RealProxy proxy_{kind_, {index_.port(), seed_.doorPort()}, login_};
};

TEST_P(ProxyStory, AClientLogsOnSearchesAndDownloadsThroughIt) {
    const std::string bytes = bytesOfSeed(9, 12'000'000);
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

    // The way went through the proxy, and no way goes around it.
    proxy_.stop();
    EXPECT_TRUE(
        eventually([&] { return leech_.view("g", "> ").find("Not connected") != std::string::npos; }));
    ASSERT_TRUE(leech_.type("c 1", "Can't connect to")) << leech_.console().output();
    leech_.quit();
}

std::string nameOfStory(const testing::TestParamInfo<ProxyStory::ParamType>& story) {
    return std::string(RealProxy::nameOf(std::get<0>(story.param))) +
           (std::get<1>(story.param) ? "WithPassword" : "");
}

INSTANTIATE_TEST_SUITE_P(Each, ProxyStory,
                         testing::Values(std::make_tuple(RealProxy::microsocks, false),
                                         std::make_tuple(RealProxy::microsocks, true),
                                         std::make_tuple(RealProxy::tinyproxy, false),
                                         std::make_tuple(RealProxy::tinyproxy, true)),
                         nameOfStory);

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

INSTANTIATE_TEST_SUITE_P(Each, ProxyWithPasswordStory,
                         testing::Values(std::make_tuple(RealProxy::microsocks, true),
                                         std::make_tuple(RealProxy::tinyproxy, true)),
                         nameOfStory);

}  // namespace
