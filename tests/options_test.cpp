// What the program does before its engine starts: real processes, and the pref.met that they leave.
#include "app/options.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/Process.h"
#include "tests/support/files.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

class Options : public testing::Test {
  protected:
    // Runs the program to its end; `output` is what it printed.
    int run(const std::vector<std::string>& arguments) {
        Process process(programPath("tarnwick"), arguments, home_.path(), Process::Input::pipe);
        process.closeInput();
        const int status = process.wait();
        output_ = process.output();
        return status;
    }
    std::string stored() const { return contentOf(home_.file("pref.met")); }

    TemporaryDirectory home_;
    std::string output_;
};

TEST_F(Options, HelpAndVersionStartNothing) {
    EXPECT_EQ(run({"w0", "--help", "nonsense"}), 0);
    EXPECT_THAT(output_, StartsWith("Usage: tarnwick "));
    for (const char* word : {"--set-proxy", "--version"}) EXPECT_THAT(output_, HasSubstr(word));
    EXPECT_EQ(run({"--version"}), 0);
    EXPECT_EQ(output_, "tarnwick 16.16.59\n");
    EXPECT_TRUE(std::filesystem::is_empty(home_.path()));
}

TEST_F(Options, OnlyTheExactWordsAreTaken) {
    for (const char* argument : {"-help", "--helpme", "--set-proxy=none"}) {
        EXPECT_EQ(run({argument, "nonsense"}), 1) << argument;
        EXPECT_THAT(output_, HasSubstr("Unrecognized command.")) << argument;
    }
}

TEST_F(Options, AProxyIsStoredAndNothingElseChanges) {
    ASSERT_EQ(run({"name kit", "port 4711", "dumax 100 30", "pass a b"}), 1);
    const std::string before = stored();
    EXPECT_EQ(run({"--set-proxy", "socks5,proxy.example,1080,kit,one,two"}), 0);
    EXPECT_THAT(output_, HasSubstr("SOCKS5 proxy proxy.example, port 1080, user kit"));
    EXPECT_THAT(output_, testing::Not(HasSubstr("one,two")));
    EXPECT_EQ(run({"vo"}), 1);
    EXPECT_THAT(output_, HasSubstr("Door Port:\t\t4711"));
    EXPECT_THAT(stored(), HasSubstr("proxy.example")) << "the client keeps it";
    EXPECT_EQ(run({"--set-proxy", "none"}), 0);
    EXPECT_EQ(stored(), before);
}

TEST_F(Options, AFirstRunHasAnIdentityOfItsOwn) {
    EXPECT_EQ(run({"--set-proxy", "http,127.0.0.1,3128"}), 0);
    const std::string hash = stored().substr(6, 16);
    EXPECT_NE(hash, std::string(16, '\0'));
    EXPECT_EQ(run({}), 1);
    EXPECT_EQ(stored().substr(6, 16), hash);
}

TEST_F(Options, WhatCannotBeTakenOrStoredChangesNothing) {
    ASSERT_EQ(run({"--set-proxy", "socks4,192.0.2.1,1080"}), 0);
    const std::string before = stored();
    for (const char* value : {"", "socks5", "--help"}) {
        EXPECT_EQ(run({"--set-proxy", value}), 2) << value;
        EXPECT_THAT(output_, StartsWith("tarnwick: --set-proxy: "));
    }
    EXPECT_EQ(run({"--set-proxy"}), 2);
    EXPECT_EQ(stored(), before);

    std::filesystem::remove(home_.file("pref.met"));
    std::filesystem::create_directory(home_.file("pref.met"));
    std::filesystem::create_directory(home_.file("pref.met.bad"));
    writeFile(home_.file("pref.met.bad/full"), "so that the directory can't be set aside");
    EXPECT_EQ(run({"--set-proxy", "none"}), 2);
}

// Type, host, port, user and password, or why the value is refused.
std::string reading(const std::string& value) {
    i4_proxy_settings proxy;
    std::string error;
    if (!readProxySetting(value, proxy, error)) return "refused: " + error;
    const auto text = [](const i4_string& string) { return string.isNull() ? "-" : string.c_str(); };
    std::string all = std::to_string(proxy.pType) + " " + text(proxy.server) + " ";
    return all + std::to_string(proxy.port) + " " + text(proxy.user) + " " + text(proxy.password);
}

TEST(ProxySetting, IsReadOrRefusedWithAReason) {
    const std::string longest(255, 'h');
    const std::string tooLong(256, 'x');
    const std::pair<std::string, std::string> good[] = {
        {"none", "0 - 0 - -"},
        {"0,h,1", "0 - 0 - -"},
        {"socks4,h,1", "1 h 1 - -"},
        {"2,h,65535,u,p", "2 h 65535 u p"},
        {"http,h,80,u,:,p", "3 h 80 u :,p"},
        {"socks5,h,80,a:b,p", "2 h 80 a:b p"},
        {"3," + longest + ",80", "3 " + longest + " 80 - -"},
    };
    for (const auto& [value, reads] : good) EXPECT_EQ(reading(value), reads);
    std::vector<std::string> bad{"http," + tooLong + ",80", "http,h,80," + tooLong + ",p",
                                 "http,h,80,u," + tooLong};
    for (const char* value : {"4,h,1", "SOCKS5,h,1", "socks5,h", "socks5,h,", "socks5,,1080", "socks5,h,0",
                              "socks5,h,-1", "socks5,h,65536", "socks5,h,80x", "socks5,h,99999999999",
                              "socks5,a b,80", "socks5,h,80,u", "socks5,h,80,,", "socks5,h,80,u,",
                              "socks5,h,80,,p", "socks5,h,80,", "http,h,80,a:b,p", "http,h,80,a\nb,p"}) {
        bad.emplace_back(value);
    }
    for (const std::string& value : bad)
        EXPECT_THAT(reading(value), testing::MatchesRegex("refused: .+")) << value;
}

}  // namespace
