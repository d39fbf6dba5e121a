// Proxies that answer by a script, on loopback: what is asked of them byte for byte, and how each state ends.
#include "i4min/network/proxy.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "i4min/network/protocol.h"
#include "i4min/threads/linux/i4_time.h"

using namespace std::string_literals;

namespace {

constexpr i32 limit = 20000;  // ms, for what shall happen at once
constexpr u32 writeOrError = I4_SELECT_WRITE | I4_SELECT_ERROR;

const std::string greeting = "\5\2\0\2"s;
const std::string granted4 = "\0\x5a\x12\x36\x0a\0\0\7"s;
const std::string granted5 = "\5\0\0\1\x0a\0\0\7\x12\x36"s;
const std::string granted_http = "HTTP/1.0 200 Connection established\r\nProxy-agent: test\r\n\r\n";

// One turn of a proxy: it reads exactly these bytes, then sends its answer.
struct Turn {
    std::string expected;
    std::string answer;
};
enum class Then { stay, close };

// A proxy on loopback for one connection. It plays its turns, then closes or waits until the client goes.
class ScriptedProxy {
  public:
    ScriptedProxy(std::vector<Turn> turns, Then then = Then::stay)
        : door_(open()), port_(door_->local_address()->get_port()), turns_(std::move(turns)), then_(then) {
        thread_ = std::thread([this] { play(); });
    }
    ~ScriptedProxy() {
        door_->cancel();
        thread_.join();
    }

    u16 port() const { return port_; }

  private:
    static std::unique_ptr<i4_socket> open() {
        makeProtocol(nullptr);
        return theProtocol->listen(0, 500, I4_STREAM, nullptr);
    }
    void play() {
        std::unique_ptr<i4_socket> client;
        if (!door_->accept(client)) return;
        for (const Turn& turn : turns_) {
            std::string got;
            while (got.size() < turn.expected.size() && client->ready(I4_SELECT_READ, limit, nullptr) != 0) {
                char byte = 0;
                if (client->read(&byte, 1) != 1) break;
                got += byte;
            }
            EXPECT_EQ(got, turn.expected);
            client->write(turn.answer.data(), static_cast<u32>(turn.answer.size()));
        }
        if (then_ == Then::close) return;
        // Until the client goes; it may send more than the script knows of.
        char byte = 0;
        while (client->ready(I4_SELECT_READ, limit, nullptr) != 0 && client->read(&byte, 1) > 0) {
        }
    }

    const std::unique_ptr<i4_socket> door_;
    const u16 port_;
    const std::vector<Turn> turns_;
    const Then then_;
    std::thread thread_;
};

i4_proxy_settings settingsFor(i32 type, u16 port, const char* user = nullptr,
                              const char* password = nullptr) {
    i4_proxy_settings settings;
    settings.pType = type;
    settings.server = "127.0.0.1";
    settings.port = port;
    settings.user = user;
    settings.password = password;
    return settings;
}

std::unique_ptr<i4_address> hostAt(const char* name, u16 port) {
    auto address = theProtocol->resolve(name, 0, 0);
    address->set_port(port);
    return address;
}

// A connection through the proxy to `host`, port 4661, on its way.
std::unique_ptr<i4_proxy_sock> startThrough(const i4_proxy_settings& settings, const char* host) {
    makeProtocol(&settings);
    auto socket = theProtocol->connect(*hostAt(host, 4661), I4_STREAM, false);
    return std::unique_ptr<i4_proxy_sock>(static_cast<i4_proxy_sock*>(socket.release()));
}

std::string httpRequest(const std::string& host, const std::string& extra = "") {
    return "CONNECT " + host +
           ":4661 HTTP/1.0\r\nUser-Agent: Mozilla/4.0 (compatible; MSIE 5.0; Windows 98)\r\nHost: " + host +
           "\r\nContent-Length: 0\r\nProxy-Connection: Keep-Alive\r\nPragma: no-cache\r\n" + extra + "\r\n";
}

const std::string request4 = "\4\1\x12\x35\x0a\1\2\3\0"s;
const std::string request5 = "\5\1\0\3\15index.example\x12\x35"s;

struct Case {
    const char* what;
    i32 type;
    const char* host;
    const char* user;
    const char* password;
    std::vector<Turn> turns;
};

TEST(Proxy, ATunnelStandsAndCarriesBytes) {
    const Case table[] = {
        {"SOCKS4", I4_PROXY_SOCKS4, "10.1.2.3", nullptr, nullptr, {{request4, granted4}}},
        {"SOCKS4, version 4", I4_PROXY_SOCKS4, "10.1.2.3", "u", "p", {{request4, "\4" + granted4.substr(1)}}},
        {"SOCKS5",
         I4_PROXY_SOCKS5,
         "index.example",
         nullptr,
         nullptr,
         {{greeting, "\5\0"s}, {request5, granted5}}},
        {"SOCKS5 with password",
         I4_PROXY_SOCKS5,
         "index.example",
         "user",
         "secret",
         {{greeting, "\5\2"}, {"\1\4user\6secret", "\1\0"s}, {request5, granted5}}},
        {"HTTP",
         I4_PROXY_HTTP,
         "index.example",
         nullptr,
         nullptr,
         {{httpRequest("index.example"), granted_http}}},
        {"HTTP, no user", I4_PROXY_HTTP, "10.1.2.3", "", "", {{httpRequest("10.1.2.3"), granted_http}}},
        {"HTTP with password",
         I4_PROXY_HTTP,
         "index.example",
         "u",
         "p",
         {{httpRequest("index.example", "Proxy-authorization: Basic dTpw\r\n"), granted_http}}},
    };
    for (const Case& row : table) {
        SCOPED_TRACE(row.what);
        std::vector<Turn> turns = row.turns;
        turns.push_back({"ping", "pong"});
        const ScriptedProxy proxy(turns);
        const auto socket =
            startThrough(settingsFor(row.type, proxy.port(), row.user, row.password), row.host);
        ASSERT_TRUE(socket);
        char buffer[4];
        EXPECT_EQ(socket->read(buffer, 4), 0);
        EXPECT_EQ(socket->write("early", 5), 0);
        EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_WRITE);
        ASSERT_EQ(socket->state(), i4_proxy_sock::connected);
        EXPECT_EQ(socket->ready(I4_SELECT_READ, 0, nullptr), 0U);  // asks, and doesn't wait
        EXPECT_EQ(socket->write("ping", 4), 4);
        socket->set_blocking(true);
        socket->readAll(buffer, 4);
        EXPECT_EQ(std::string(buffer, 4), "pong");
        if (row.type != I4_PROXY_HTTP) {
            EXPECT_EQ(ipOfAddress(*socket->target_address()), 0x0700000aU);  // what the proxy reported
            EXPECT_EQ(socket->target_address()->get_port(), 4662);
        }
    }
}

TEST(Proxy, EachRefusalAndEachBadAnswerFails) {
    const auto answer4 = [](std::string answer) { return std::vector<Turn>{{request4, std::move(answer)}}; };
    const auto answer5 = [](std::string answer) {
        return std::vector<Turn>{{greeting, "\5\0"s}, {request5, std::move(answer)}};
    };
    const auto http = [](std::string answer) {
        return std::vector<Turn>{{httpRequest("index.example"), std::move(answer)}};
    };
    const std::vector<std::pair<i32, std::vector<Turn>>> table = {
        {I4_PROXY_SOCKS4, {}},
        {I4_PROXY_SOCKS4, answer4("\0\x5b\x12\x36\x0a\0\0\7"s)},
        {I4_PROXY_SOCKS4, answer4("\5\x5a\x12\x36\x0a\0\0\7"s)},
        {I4_PROXY_SOCKS4, answer4(granted4.substr(0, 7))},
        {I4_PROXY_SOCKS4, answer4("HTTP/1.0 400 Bad Request\r\n\r\n")},
        {I4_PROXY_SOCKS5, {}},
        {I4_PROXY_SOCKS5, {{greeting, "\5"}}},
        {I4_PROXY_SOCKS5, {{greeting, "\4\0"s}}},
        {I4_PROXY_SOCKS5, {{greeting, "\5\xff"}}},
        {I4_PROXY_SOCKS5, {{greeting, "\5\2"}}},  // no password is set
        {I4_PROXY_SOCKS5, answer5("")},
        {I4_PROXY_SOCKS5, answer5("\5")},
        {I4_PROXY_SOCKS5, answer5("\5\5\0\1\0\0\0\0\0\0"s)},
        {I4_PROXY_SOCKS5, answer5("\5\0\0\3\0\0\0\0\0\0"s)},
        {I4_PROXY_SOCKS5, answer5("\4" + granted5.substr(1))},
        {I4_PROXY_SOCKS5, answer5(granted5.substr(0, 9))},
        {I4_PROXY_HTTP, {}},
        {I4_PROXY_HTTP, http("HTTP/1.0 407 Proxy Authentication Required\r\n\r\n")},
        {I4_PROXY_HTTP, http("HTTP/1.0 2000 Odd\r\n\r\n")},
        {I4_PROXY_HTTP, http("HTTP/1.0\r\n\r\n")},
        {I4_PROXY_HTTP, http("HTTP/1.0 200 Connection established\r\nProxy-")},
        {I4_PROXY_HTTP, http("HTTP/1.0 200 " + std::string(2000, 'x') + "\r\n\r\n")},
        {I4_PROXY_HTTP, http(std::string(1000, '\0'))},
    };
    for (std::size_t i = 0; i < table.size(); ++i) {
        const auto& [type, turns] = table[i];
        SCOPED_TRACE(i);
        const ScriptedProxy proxy(turns, Then::close);
        const auto socket = startThrough(settingsFor(type, proxy.port()),
                                         type == I4_PROXY_SOCKS4 ? "10.1.2.3" : "index.example");
        ASSERT_TRUE(socket);
        EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_ERROR);
        EXPECT_EQ(socket->state(), i4_proxy_sock::failed);
        EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_ERROR);
        EXPECT_EQ(socket->ready(I4_SELECT_WRITE, limit, nullptr), 0U);
        char byte = 0;
        EXPECT_EQ(socket->read(&byte, 1), 0);
        EXPECT_EQ(socket->write(&byte, 1), 0);
    }
}

TEST(Proxy, AWrongPasswordFails) {
    const ScriptedProxy proxy({{greeting, "\5\2"}, {"\1\1u\1p", "\1\1"}});
    const auto socket = startThrough(settingsFor(I4_PROXY_SOCKS5, proxy.port(), "u", "p"), "index.example");
    EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_ERROR);
}

TEST(Proxy, AnAnswerInPiecesFails) {
    // The proxy sends the first byte, and the next only when the client has gone: nothing depends on the
    // clock.
    const std::pair<i32, Turn> table[] = {{I4_PROXY_SOCKS4, {request4, granted4.substr(0, 1)}},
                                          {I4_PROXY_SOCKS5, {greeting, "\5"}},
                                          {I4_PROXY_HTTP, {httpRequest("index.example"), "H"}}};
    for (const auto& [type, turn] : table) {
        const ScriptedProxy proxy({turn});
        const auto socket = startThrough(settingsFor(type, proxy.port()),
                                         type == I4_PROXY_SOCKS4 ? "10.1.2.3" : "index.example");
        const u32 start = i4_ticks();
        EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_ERROR);
        EXPECT_LT(i4_ticks() - start, static_cast<u32>(limit));
    }
}

TEST(Proxy, AStallEndsWithItsTimeInEveryState) {
    const std::pair<i32, std::vector<Turn>> table[] = {
        {I4_PROXY_SOCKS4, {}},
        {I4_PROXY_SOCKS5, {}},
        {I4_PROXY_SOCKS5, {{greeting, "\5\2"}}},
        {I4_PROXY_SOCKS5, {{greeting, "\5\0"s}}},
        {I4_PROXY_HTTP, {}},
    };
    for (const auto& [type, turns] : table) {
        const ScriptedProxy proxy(turns);
        const auto socket = startThrough(settingsFor(type, proxy.port(), "u", "p"),
                                         type == I4_PROXY_SOCKS4 ? "10.1.2.3" : "index.example");
        EXPECT_EQ(socket->ready(writeOrError, 100, nullptr), I4_SELECT_ERROR);
    }
}

TEST(Proxy, CancelEndsAHandshake) {
    const ScriptedProxy proxy({});
    const auto socket = startThrough(settingsFor(I4_PROXY_SOCKS5, proxy.port()), "index.example");
    u32 result = 99;
    std::thread worker([&] { result = socket->ready(writeOrError, -1, nullptr); });
    EXPECT_TRUE(socket->cancel());
    worker.join();
    EXPECT_EQ(result, I4_SELECT_ERROR);
}

TEST(Proxy, AProxyThatIsNotThereFails) {
    makeProtocol(nullptr);
    auto door = theProtocol->listen(0, 500, I4_STREAM, nullptr);
    const u16 port = door->local_address()->get_port();
    door.reset();
    for (const i32 type : {I4_PROXY_SOCKS4, I4_PROXY_SOCKS5, I4_PROXY_HTTP}) {
        const auto socket = startThrough(settingsFor(type, port), "10.1.2.3");
        ASSERT_TRUE(socket);
        EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_ERROR);
        EXPECT_EQ(theProtocol->connect(*hostAt("10.1.2.3", 4661), I4_STREAM, true), nullptr);
    }
    i4_proxy_settings settings = settingsFor(I4_PROXY_SOCKS5, port);
    settings.server = "no such name";
    makeProtocol(&settings);
    EXPECT_EQ(theProtocol->connect(*hostAt("10.1.2.3", 4661), I4_STREAM, false), nullptr);
    settings.server = nullptr;
    makeProtocol(&settings);
    EXPECT_EQ(theProtocol->connect(*hostAt("10.1.2.3", 4661), I4_STREAM, false), nullptr);
}

TEST(Proxy, ABlockingConnectBringsTheTunnelOrNothing) {
    {
        const ScriptedProxy proxy({{greeting, "\5\0"s}, {request5, granted5}, {"ping", "pong"}});
        const i4_proxy_settings settings = settingsFor(I4_PROXY_SOCKS5, proxy.port());
        makeProtocol(&settings);
        const auto socket = theProtocol->connect(*hostAt("index.example", 4661), I4_STREAM, true);
        ASSERT_TRUE(socket);
        EXPECT_EQ(socket->write("ping", 4), 4);
        char buffer[4];
        socket->readAll(buffer, 4);
    }
    const ScriptedProxy proxy({{greeting, "\5\xff"}});
    const i4_proxy_settings settings = settingsFor(I4_PROXY_SOCKS5, proxy.port());
    makeProtocol(&settings);
    EXPECT_EQ(theProtocol->connect(*hostAt("index.example", 4661), I4_STREAM, true), nullptr);
}

// What can't stand in a request is never sent: the proxy gets no byte of it.
TEST(Proxy, NamesAndPasswordsThatDontFitFail) {
    const std::string long256(256, 'n');
    const std::string long255(255, 'n');
    const struct {
        i32 type;
        std::string host, user;
        std::vector<Turn> turns;
        bool stands;
    } table[] = {
        {I4_PROXY_SOCKS5, "h", long256, {{greeting, "\5\2"}}, false},
        {I4_PROXY_SOCKS5,
         "h",
         long255,
         {{greeting, "\5\2"}, {"\1\xff" + long255 + "\1p", "\1\0"s}, {"\5\1\0\3\1h\x12\x35"s, granted5}},
         true},
        {I4_PROXY_SOCKS5, long256, "", {{greeting, "\5\0"s}}, false},
        {I4_PROXY_SOCKS5, "", "", {{greeting, "\5\0"s}}, false},
        {I4_PROXY_HTTP, long256, "", {}, false},
        {I4_PROXY_HTTP, "h", std::string(1000, 'u'), {}, false},
        {I4_PROXY_HTTP, "host HTTP/1.0\r\nEvil: yes", "", {}, false},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(row.host.substr(0, 20) + " " + std::to_string(row.user.size()));
        const ScriptedProxy proxy(row.turns);
        const auto socket =
            startThrough(settingsFor(row.type, proxy.port(), row.user.c_str(), "p"), row.host.c_str());
        EXPECT_EQ(socket->ready(writeOrError, limit, nullptr),
                  row.stands ? I4_SELECT_WRITE : I4_SELECT_ERROR);
    }
}

TEST(Proxy, Socks4AsksByNameWhereTheTargetHasOne) {
    const ScriptedProxy proxy({{"\4\1\x12\x35\0\0\0\1\0index.example\0"s, granted4}});
    const i4_proxy_settings settings = settingsFor(I4_PROXY_SOCKS4, proxy.port());
    makeProtocol(&settings);
    const auto socket = theProtocol->connect(i4_proxy_address("index.example", 4661), I4_STREAM, false);
    EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_WRITE);
}

TEST(Proxy, AListenerGetsItsConnectionFromTheProxy) {
    const std::string incoming4 = "\0\x5a\x12\x37\x0a\0\0\x8"s;
    const std::string incoming5 = "\5\0\0\1\x0a\0\0\x8\x12\x37"s;
    const std::string bind4 = "\4\2\0\0\x0a\1\2\3\0"s;
    const std::pair<i32, std::vector<Turn>> table[] = {
        {I4_PROXY_SOCKS4, {{bind4, granted4 + incoming4}, {"ping", "pong"}}},
        {I4_PROXY_SOCKS5,
         {{greeting, "\5\0"s}, {"\5\2\0\1\x0a\1\2\3\0\0"s, granted5 + incoming5}, {"ping", "pong"}}},
    };
    for (const auto& [type, turns] : table) {
        const ScriptedProxy proxy(turns);
        const auto target = hostAt("10.1.2.3", 4661);
        const i4_proxy_settings settings = settingsFor(type, proxy.port());
        makeProtocol(&settings);
        const auto door = theProtocol->listen(4662, limit, I4_STREAM, target.get());
        ASSERT_TRUE(door);
        auto& listener = static_cast<i4_proxy_sock&>(*door);
        EXPECT_EQ(listener.target_address()->get_port(), 4662);
        std::unique_ptr<i4_socket> socket;
        std::unique_ptr<i4_address> from;
        ASSERT_TRUE(listener.accept_remote(socket, from));
        EXPECT_EQ(ipOfAddress(*from), 0x0800000aU);
        EXPECT_EQ(from->get_port(), 4663);
        EXPECT_EQ(socket->write("ping", 4), 4);
        char buffer[4];
        socket->readAll(buffer, 4);
        EXPECT_FALSE(listener.accept_remote(socket, from));
        EXPECT_EQ(listener.ready(I4_SELECT_READ | I4_SELECT_ERROR, limit, nullptr), I4_SELECT_ERROR);
    }
}

// The address bytes of a name are 0, which the system takes for this machine.
TEST(Proxy, NoDatagramGoesToANameThatAProxyResolves) {
    i4_tcpip_sock socket(I4_DATAGRAM);
    EXPECT_EQ(socket.write_to("ping", 4, i4_proxy_address("index.example", 4665)), -1);
}

TEST(Proxy, AListenerWithoutATargetOrAnAnswerFails) {
    const ScriptedProxy refusing({{"\4\2\0\0\x0a\1\2\3\0"s, "\0\x5b\0\0\0\0\0\0"s}});
    const auto target = hostAt("10.1.2.3", 4661);
    i4_proxy_settings settings = settingsFor(I4_PROXY_SOCKS4, refusing.port());
    makeProtocol(&settings);
    EXPECT_EQ(theProtocol->listen(0, 500, I4_STREAM, nullptr), nullptr);
    EXPECT_EQ(theProtocol->listen(0, 500, I4_DATAGRAM, target.get()), nullptr);
    EXPECT_EQ(theProtocol->listen(0, limit, I4_STREAM, target.get()), nullptr);
    settings.pType = I4_PROXY_HTTP;
    makeProtocol(&settings);
    EXPECT_EQ(theProtocol->listen(0, 500, I4_STREAM, target.get()), nullptr);

    // Granted, but nobody comes: the wait for the second reply ends with its time.
    const ScriptedProxy waiting({{"\4\2\0\0\x0a\1\2\3\0"s, granted4}});
    settings = settingsFor(I4_PROXY_SOCKS4, waiting.port());
    makeProtocol(&settings);
    const auto door = theProtocol->listen(0, limit, I4_STREAM, target.get());
    ASSERT_TRUE(door);
    EXPECT_EQ(door->ready(I4_SELECT_READ | I4_SELECT_ERROR, 100, nullptr), I4_SELECT_ERROR);
}

TEST(Proxy, TextsTellHowFarAHandshakeIs) {
    class Texts final : public i4_status_class {
      public:
        bool update(f32) override { return true; }
        void setText(const i4_string& text) override { all += std::string(text.view()) + "|"; }
        std::string all;
    } texts;
    const ScriptedProxy proxy({{greeting, "\5\0"s}, {request5, granted5}});
    const auto socket = startThrough(settingsFor(I4_PROXY_SOCKS5, proxy.port()), "index.example");
    EXPECT_EQ(socket->ready(writeOrError, limit, &texts), I4_SELECT_WRITE);
    EXPECT_EQ(texts.all,
              "Connecting to |SOCKS proxy connection|Connecting to index.example|SOCKS proxy connection|");
}

TEST(Proxy, SettingsAndAddressesAreCopiedDeeply) {
    i4_proxy_settings settings = settingsFor(I4_PROXY_SOCKS5, 1080, "u", "p");
    settings.address = std::make_unique<i4_proxy_address>("proxy.example", 1080);
    const i4_proxy_settings copy = settings;
    settings.server = "other";
    settings.address->set_port(1);
    EXPECT_STREQ(copy.server.c_str(), "127.0.0.1");
    EXPECT_EQ(copy.address->get_port(), 1080);
    i4_owned_ram_file stream;
    copy.address->print(&stream);
    EXPECT_TRUE(copy.address->get_name(&stream));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(stream.buffer()), stream.size()),
              "proxy.exampleproxy.example");
}

TEST(Proxy, Base64PadsAsTheStandardTells) {
    const std::pair<std::string, const char*> table[] = {{"", ""},
                                                         {"u:p", "dTpw"},
                                                         {"f", "Zg=="},
                                                         {"fo", "Zm8="},
                                                         {"foob", "Zm9vYg=="},
                                                         {"\xff\xfe\xfd", "//79"},
                                                         {"\xfb\xf0"s, "+/A="},
                                                         {"\0\0"s, "AAA="}};
    for (const auto& [bytes, text] : table) EXPECT_EQ(i4_base64(bytes), text);
}

TEST(Proxy, TheHttpHeadersEndIsFound) {
    const std::pair<const char*, u32> table[] = {
        {"HTTP/1.0 200 OK\r\n\r\n", 1},
        {"HTTP/1.0 200 OK\r\nA: b\r\n\r\n", 1},
        {"HTTP/1.0 200 OK\r\naUTHORIZATION: bASIC x\r\n\r\n", 2},
        {"HTTP/1.0 200 OK\r\nX-Authorization: Basic x\r\n\r\n", 1},
        {"HTTP/1.0 200 OK\nX\n", 1},
        {"HTTP/1.0 200 OK\r\n", 0},
        {"HTTP/1.0 200 OK\r\n\r", 0},
        {"HTTP/1.0 200 OK\n\n", 0},
        {"", 0},
    };
    for (const auto& [text, result] : table) EXPECT_EQ(i4_scan_http_header(text), result) << text;
}

}  // namespace
