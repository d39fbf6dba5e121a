// What the program does before its engine starts: real processes, and the pref.met that they leave.
#include "app/options.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "i4min/file/file.h"
#include "meta/Meta.h"
#include "meta/UserMeta.h"
#include "tests/support/Process.h"

namespace {

class Options : public testing::Test {
  protected:
    struct Result {
        int status;
        std::string output;
    };
    Result run(const std::vector<std::string>& arguments) {
        Process process(programPath("tarnwick"), arguments, home_.path(), Process::Input::pipe);
        process.closeInput();
        const int status = process.wait();
        return {status, process.output()};
    }
    std::string prefBytes() const {
        std::ifstream file(home_.file("pref.met"), std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    std::size_t filesInHome() const {
        const std::filesystem::directory_iterator files(home_.path());
        return static_cast<std::size_t>(std::distance(begin(files), end(files)));
    }

    TemporaryDirectory home_;
};

// The two sections of a pref.met.
struct Stored {
    explicit Stored(const std::string& bytes) {
        std::vector<u8> copy(bytes.begin(), bytes.end());
        i4_ram_file_class stream(copy.data(), static_cast<u32>(copy.size()), 0);
        EXPECT_TRUE(self.fromDisk(stream));
        EXPECT_TRUE(settings.fromDisk(stream));
    }
    UserMeta self;
    Meta settings;
};

TEST_F(Options, HelpAndVersionStartNothing) {
    const Result help = run({"w0", "--help", "nonsense"});
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.output.find("Usage: tarnwick "), 0U) << help.output;
    for (const char* word : {"--set-proxy", "--version"})
        EXPECT_NE(help.output.find(word), std::string::npos);
    const Result version = run({"--version"});
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.output, "tarnwick 16.16.59\n");
    EXPECT_EQ(filesInHome(), 0U);
}

TEST_F(Options, OnlyTheExactWordsAreTaken) {
    for (const char* argument : {"-", "-help", "--helpme", "--set-proxy=none", "-v"}) {
        const Result result = run({argument, "nonsense"});
        EXPECT_EQ(result.status, 1) << argument;
        EXPECT_NE(result.output.find("Unrecognized command."), std::string::npos) << argument;
    }
}

TEST_F(Options, AProxyIsStoredAndNothingElseChanges) {
    ASSERT_EQ(run({"name kit", "port 4711", "dumax 100 30", "pass a b"}).status, 1);
    const std::string before = prefBytes();
    const Result result = run({"--set-proxy", "socks5,proxy.example,1080,kit,one,two"});
    EXPECT_EQ(result.status, 0);
    EXPECT_NE(result.output.find("SOCKS5 proxy proxy.example, port 1080, user kit"), std::string::npos)
        << result.output;
    EXPECT_EQ(result.output.find("one,two"), std::string::npos);
    {
        const Stored was(before);
        const Stored is(prefBytes());
        EXPECT_EQ(is.settings.getInt("pType"), 2U);
        EXPECT_STREQ(is.settings.getText("pSName"), "proxy.example");
        EXPECT_EQ(is.settings.getInt("pPort"), 1080U);
        EXPECT_STREQ(is.settings.getText("pUName"), "kit");
        EXPECT_STREQ(is.settings.getText("pUPass"), "one,two");
        EXPECT_EQ(is.self.hash, was.self.hash);
        EXPECT_STREQ(is.self.getName(), "kit");
        EXPECT_EQ(is.settings.getFloat("userMaxUpF"), 30);
    }
    EXPECT_NE(run({"vo"}).output.find("Door Port:\t\t4711"), std::string::npos);
    EXPECT_EQ(Stored(prefBytes()).settings.getInt("pType"), 2U) << "the client kept it";

    EXPECT_EQ(run({"--set-proxy", "none"}).status, 0);
    EXPECT_EQ(prefBytes(), before);
}

TEST_F(Options, AFirstRunHasAnIdentityOfItsOwn) {
    EXPECT_EQ(run({"--set-proxy", "http,127.0.0.1,3128"}).status, 0);
    EXPECT_EQ(filesInHome(), 1U);
    const std::string bytes = prefBytes();
    const Stored stored(bytes);
    EXPECT_FALSE(stored.self.hash.isZero());
    EXPECT_NE(stored.self.getName(), nullptr);
    EXPECT_EQ(stored.settings.getInt("pType"), 3U);
    EXPECT_EQ(run({}).status, 1);
    EXPECT_EQ(Stored(prefBytes()).self.hash, stored.self.hash);
}

TEST_F(Options, WhatCannotBeTakenChangesNothing) {
    ASSERT_EQ(run({"--set-proxy", "socks4,192.0.2.1,1080"}).status, 0);
    const std::string before = prefBytes();
    for (const char* value : {"", "socks5", "socks5,,1080", "ftp,h,21", "--help", "socks5,h,70000"}) {
        const Result result = run({"--set-proxy", value});
        EXPECT_EQ(result.status, 2) << value;
        EXPECT_EQ(result.output.find("tarnwick: --set-proxy: "), 0U) << result.output;
    }
    EXPECT_EQ(run({"--set-proxy"}).status, 2);
    EXPECT_EQ(prefBytes(), before);

    std::filesystem::remove(home_.file("pref.met"));
    std::filesystem::create_directory(home_.file("pref.met"));
    std::filesystem::create_directory(home_.file("pref.met.bad"));
    std::ofstream(home_.file("pref.met.bad/full")) << "so that the directory can't be set aside";
    EXPECT_EQ(run({"--set-proxy", "none"}).status, 2);
}

TEST(ProxySetting, ReadsEachForm) {
    const struct {
        std::string value;
        i32 type;
        const char* host;
        i32 port;
        const char* user;
        const char* password;
    } table[] = {
        {"none", 0, nullptr, 0, nullptr, nullptr},
        {"0,h,1", 0, nullptr, 0, nullptr, nullptr},
        {"socks4,h,1", 1, "h", 1, nullptr, nullptr},
        {"2,h,65535,u,p", 2, "h", 65535, "u", "p"},
        {"http,h,80,u,:,p", 3, "h", 80, "u", ":,p"},
        {"socks5,h,80,a:b,p", 2, "h", 80, "a:b", "p"},
        {"3," + std::string(255, 'h') + ",80", 3, nullptr, 80, nullptr, nullptr},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.value);
        i4_proxy_settings proxy;
        std::string error;
        EXPECT_TRUE(readProxySetting(row.value, proxy, error)) << error;
        EXPECT_EQ(proxy.pType, row.type);
        EXPECT_EQ(proxy.port, row.port);
        if (row.host) {
            EXPECT_STREQ(proxy.server.c_str(), row.host);
        }
        EXPECT_STREQ(proxy.user.c_str(), row.user);
        EXPECT_STREQ(proxy.password.c_str(), row.password);
    }
}

TEST(ProxySetting, RefusesTheRest) {
    const std::string tooLong(256, 'x');
    for (const std::string& value : {std::string("4,h,1"),
                                     std::string("SOCKS5,h,1"),
                                     std::string("socks5,h"),
                                     std::string("socks5,h,"),
                                     std::string("socks5,h,0"),
                                     std::string("socks5,h,-1"),
                                     std::string("socks5,h,65536"),
                                     std::string("socks5,h,80x"),
                                     std::string("socks5,h,99999999999"),
                                     std::string("socks5,a b,80"),
                                     std::string("socks5,h,80,u"),
                                     std::string("socks5,h,80,,"),
                                     std::string("socks5,h,80,u,"),
                                     std::string("socks5,h,80,,p"),
                                     std::string("socks5,h,80,"),
                                     std::string("http,h,80,a:b,p"),
                                     std::string("http,h,80,a\nb,p"),
                                     "http," + tooLong + ",80",
                                     "http,h,80," + tooLong + ",p",
                                     "http,h,80,u," + tooLong}) {
        i4_proxy_settings proxy;
        std::string error;
        EXPECT_FALSE(readProxySetting(value, proxy, error)) << value;
        EXPECT_FALSE(error.empty()) << value;
    }
}

}  // namespace
