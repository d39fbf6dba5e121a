// Proxies that answer by a script, on loopback: what is asked of them byte for byte, and how each state ends.
#include "i4min/network/proxy.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "i4min/network/protocol.h"
#include "i4min/threads/linux/i4_time.h"
#include "tests/support/ScriptedProxy.h"

using namespace std::string_literals;

namespace {

using Turns = std::vector<ProxyTurn>;

constexpr i32 limit = 20000;  // ms, for what shall happen at once
constexpr i32 briefly = 100;  // ms, for what shall not happen
constexpr u32 writeOrError = I4_SELECT_WRITE | I4_SELECT_ERROR;

const std::string host = "index.example";
const std::string granted4 = "\0\x5a\x12\x36\x0a\0\0\7"s;
const std::string granted5 = "\5\0\0\1\x0a\0\0\7\x12\x36"s;
const std::string granted_http = "HTTP/1.0 200 Connection established\r\nProxy-agent: test\r\n\r\n";

const std::string request4 = "\4\1\x12\x35\0\0\0\1\0index.example\0"s;
const std::string bind4 = "\4\2\0\0\x0a\1\2\3\0"s;
const std::string request5 = "\5\1\0\3\15index.example\x12\x35"s;
const std::string bind5 = "\5\2\0\1\x0a\1\2\3\0\0"s;
const ProxyTurn noPassword{"\5\2\0\2"s, "\5\0"s};
const ProxyTurn wantsPassword{"\5\2\0\2"s, "\5\2"};

std::string requestHttp(const std::string& name, const std::string& extra = "") {
    return "CONNECT " + name +
           ":4661 HTTP/1.0\r\nUser-Agent: Mozilla/4.0 (compatible; MSIE 5.0; Windows 98)\r\nHost: " + name +
           "\r\nContent-Length: 0\r\nProxy-Connection: Keep-Alive\r\nPragma: no-cache\r\n" + extra + "\r\n";
}

// Makes the protocol go through that proxy from now on. An empty user is none.
void useProxy(i32 type, u16 port, const std::string& user = "", const std::string& password = "") {
    i4_proxy_settings settings;
    settings.pType = type;
    settings.server = "127.0.0.1";
    settings.port = port;
    if (!user.empty()) {
        settings.user = user.c_str();
        settings.password = password.c_str();
    }
    makeProtocol(&settings);
}

// Port 4661 of a host. A name is left to the proxy, whatever its type.
std::unique_ptr<i4_address> hostAt(const std::string& name) {
    if (name.empty() || !std::isdigit(static_cast<unsigned char>(name[0]))) {
        return std::make_unique<i4_proxy_address>(name.c_str(), u16{4661});
    }
    auto address = theProtocol->resolve(name.c_str(), 0, 0);
    address->set_port(4661);
    return address;
}

std::unique_ptr<i4_proxy_sock> connectTo(const std::string& name) {
    auto socket = theProtocol->connect(*hostAt(name), I4_STREAM, false);
    return std::unique_ptr<i4_proxy_sock>(static_cast<i4_proxy_sock*>(socket.release()));
}

void expectPong(i4_socket& socket) {
    char buffer[4];
    EXPECT_EQ(socket.write("ping", 4), 4);
    socket.set_blocking(true);
    socket.readAll(buffer, 4);
    EXPECT_EQ(std::string(buffer, 4), "pong");
}

TEST(Proxy, ATunnelStandsAndCarriesBytes) {
    const ProxyTurn plain{"\4\1\x12\x35\x0a\1\2\3\0"s, "\4" + granted4.substr(1)};
    const ProxyTurn password{"\1\4user\6secret", "\1\0"s};
    const std::string basic = "Proxy-authorization: Basic dTpw\r\n";
    const std::string longUser(255, 'u');
    const ProxyTurn longPassword{"\1\xff" + longUser + "\1p", "\1\0"s};
    const struct {
        i32 type;
        std::string name, user, password;
        Turns turns;
    } table[] = {
        {I4_PROXY_SOCKS4, host, "", "", {{request4, granted4}}},
        {I4_PROXY_SOCKS4, "10.1.2.3", "u", "p", {plain}},
        {I4_PROXY_SOCKS5, host, "", "", {noPassword, {request5, granted5}}},
        {I4_PROXY_SOCKS5, host, "user", "secret", {wantsPassword, password, {request5, granted5}}},
        {I4_PROXY_SOCKS5, host, longUser, "p", {wantsPassword, longPassword, {request5, granted5}}},
        {I4_PROXY_HTTP, host, "", "", {{requestHttp(host), granted_http}}},
        {I4_PROXY_HTTP, "10.1.2.3", "", "", {{requestHttp("10.1.2.3"), granted_http}}},
        {I4_PROXY_HTTP, host, "u", "p", {{requestHttp(host, basic), granted_http}}},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(std::to_string(row.type) + " " + row.name + " " + row.user);
        for (const bool blocking : {false, true}) {
            Turns turns = row.turns;
            turns.push_back({"ping", "pong"});
            const ScriptedProxy proxy(turns);
            useProxy(row.type, proxy.port(), row.user, row.password);
            if (blocking) {
                const auto socket = theProtocol->connect(*hostAt(row.name), I4_STREAM, true);
                ASSERT_TRUE(socket);
                expectPong(*socket);
                continue;
            }
            const auto socket = connectTo(row.name);
            ASSERT_TRUE(socket);
            char byte = 0;
            EXPECT_EQ(socket->read(&byte, 1), 0);
            EXPECT_EQ(socket->write("early", 5), 0);
            EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_WRITE);
            ASSERT_EQ(socket->state(), i4_proxy_sock::connected);
            EXPECT_EQ(socket->ready(I4_SELECT_READ, 0, nullptr), 0U);  // asks, and doesn't wait
            expectPong(*socket);
            if (row.type == I4_PROXY_HTTP) continue;
            EXPECT_EQ(ipOfAddress(*socket->target_address()), 0x0700000aU);  // what the proxy reported
            EXPECT_EQ(socket->target_address()->get_port(), 4662);
        }
    }
}

TEST(Proxy, RefusalsBadAnswersAndStallsFailInTime) {
    constexpr auto stay = ScriptedProxy::Then::stay;
    constexpr auto close = ScriptedProxy::Then::close;
    const auto answer5 = [](const std::string& answer) { return Turns{noPassword, {request5, answer}}; };
    const auto http = [](const std::string& answer) { return Turns{{requestHttp(host), answer}}; };
    const std::string long256(256, 'n');
    const struct {
        i32 type;
        Turns turns;
        ScriptedProxy::Then then = close;
        i32 time = limit;
        std::string user = "";
        std::string name = host;
    } table[] = {
        {I4_PROXY_SOCKS4, {}},
        {I4_PROXY_SOCKS4, {{request4, "\0\x5b\x12\x36\x0a\0\0\7"s}}},
        {I4_PROXY_SOCKS4, {{request4, "\5\x5a\x12\x36\x0a\0\0\7"s}}},
        {I4_PROXY_SOCKS4, {{request4, granted4.substr(0, 7)}}},
        {I4_PROXY_SOCKS4, {{request4, "HTTP/1.0 400 Bad Request\r\n\r\n"}}},
        {I4_PROXY_SOCKS5, {}},
        {I4_PROXY_SOCKS5, {{"\5\2\0\2"s, "\5"}}},
        {I4_PROXY_SOCKS5, {{"\5\2\0\2"s, "\4\0"s}}},
        {I4_PROXY_SOCKS5, {{"\5\2\0\2"s, "\5\xff"}}},
        {I4_PROXY_SOCKS5, {wantsPassword}},  // and none is set
        {I4_PROXY_SOCKS5, {wantsPassword, {"\1\1u\1p", "\1\1"}}, stay, limit, "u"},
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
        // An answer in pieces: the rest would come too late.
        {I4_PROXY_SOCKS4, {{request4, granted4.substr(0, 1)}}, stay},
        {I4_PROXY_SOCKS5, {{"\5\2\0\2"s, "\5"}}, stay},
        {I4_PROXY_HTTP, http("H"), stay},
        {I4_PROXY_SOCKS4, {}, stay, briefly},
        {I4_PROXY_SOCKS5, {}, stay, briefly},
        {I4_PROXY_SOCKS5, {wantsPassword}, stay, briefly, "u"},
        {I4_PROXY_SOCKS5, {noPassword}, stay, briefly},
        {I4_PROXY_HTTP, {}, stay, briefly},
        // What can't stand in a request: it isn't sent, and no answer is waited for.
        {I4_PROXY_SOCKS4, {}, stay, limit, "", long256},
        {I4_PROXY_SOCKS5, {wantsPassword}, stay, limit, long256},
        {I4_PROXY_SOCKS5, {noPassword}, stay, limit, "", long256},
        {I4_PROXY_SOCKS5, {noPassword}, stay, limit, "", ""},
        {I4_PROXY_HTTP, {}, stay, limit, "", long256},
        {I4_PROXY_HTTP, {}, stay, limit, std::string(1000, 'u')},
        {I4_PROXY_HTTP, {}, stay, limit, "", "host HTTP/1.0\r\nEvil: yes"},
    };
    for (std::size_t i = 0; i < std::size(table); ++i) {
        const auto& row = table[i];
        SCOPED_TRACE(i);
        const ScriptedProxy proxy(row.turns, row.then);
        useProxy(row.type, proxy.port(), row.user, "p");
        const auto socket = connectTo(row.name);
        ASSERT_TRUE(socket);
        const u32 start = i4_ticks();
        EXPECT_EQ(socket->ready(writeOrError, row.time, nullptr), I4_SELECT_ERROR);
        EXPECT_LT(i4_ticks() - start, static_cast<u32>(limit));
        EXPECT_EQ(socket->state(), i4_proxy_sock::failed);
        EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_ERROR);
        EXPECT_EQ(socket->ready(I4_SELECT_WRITE, limit, nullptr), 0U);
        char byte = 0;
        EXPECT_EQ(socket->read(&byte, 1), 0);
        EXPECT_EQ(socket->write(&byte, 1), 0);
    }
}

TEST(Proxy, CancelEndsAHandshake) {
    const ScriptedProxy proxy({});
    useProxy(I4_PROXY_SOCKS5, proxy.port());
    const auto socket = connectTo(host);
    u32 result = 99;
    std::thread worker([&] { result = socket->ready(writeOrError, -1, nullptr); });
    EXPECT_TRUE(socket->cancel());
    worker.join();
    EXPECT_EQ(result, I4_SELECT_ERROR);
}

TEST(Proxy, AProxyThatIsNotThereFails) {
    makeProtocol(nullptr);
    const u16 port = theProtocol->listen(0, 0, I4_STREAM, nullptr)->local_address()->get_port();
    useProxy(I4_PROXY_SOCKS5, port);
    EXPECT_EQ(connectTo(host)->ready(writeOrError, limit, nullptr), I4_SELECT_ERROR);
    EXPECT_EQ(theProtocol->connect(*hostAt(host), I4_STREAM, true), nullptr);
    for (const char* unknown : {"no such name", static_cast<const char*>(nullptr)}) {
        i4_proxy_settings settings;
        settings.pType = I4_PROXY_SOCKS5;
        settings.server = unknown;
        makeProtocol(&settings);
        EXPECT_EQ(connectTo(host), nullptr);
    }
}

TEST(Proxy, AListenerGetsItsConnectionFromTheProxy) {
    const std::string incoming4 = "\0\x5a\x12\x37\x0a\0\0\x8"s;
    const std::string incoming5 = "\5\0\0\1\x0a\0\0\x8\x12\x37"s;
    const std::pair<i32, Turns> table[] = {
        {I4_PROXY_SOCKS4, {{bind4, granted4 + incoming4}, {"ping", "pong"}}},
        {I4_PROXY_SOCKS5, {noPassword, {bind5, granted5 + incoming5}, {"ping", "pong"}}},
    };
    for (const auto& [type, turns] : table) {
        const ScriptedProxy proxy(turns);
        const auto target = hostAt("10.1.2.3");
        useProxy(type, proxy.port());
        const auto door = theProtocol->listen(4662, limit, I4_STREAM, target.get());
        ASSERT_TRUE(door);
        auto& listener = static_cast<i4_proxy_sock&>(*door);
        EXPECT_EQ(listener.target_address()->get_port(), 4662);
        std::unique_ptr<i4_socket> socket;
        std::unique_ptr<i4_address> from;
        ASSERT_TRUE(listener.accept_remote(socket, from));
        EXPECT_EQ(ipOfAddress(*from), 0x0800000aU);
        EXPECT_EQ(from->get_port(), 4663);
        expectPong(*socket);
        EXPECT_FALSE(listener.accept_remote(socket, from));
        EXPECT_EQ(listener.ready(I4_SELECT_READ | I4_SELECT_ERROR, limit, nullptr), I4_SELECT_ERROR);
    }
}

TEST(Proxy, AListenerWithoutATargetOrAnAnswerFails) {
    const ScriptedProxy refusing({{bind4, "\0\x5b\0\0\0\0\0\0"s}});
    const auto target = hostAt("10.1.2.3");
    useProxy(I4_PROXY_SOCKS4, refusing.port());
    EXPECT_EQ(theProtocol->listen(0, limit, I4_STREAM, nullptr), nullptr);
    EXPECT_EQ(theProtocol->listen(0, limit, I4_DATAGRAM, target.get()), nullptr);
    EXPECT_EQ(theProtocol->listen(0, limit, I4_STREAM, target.get()), nullptr);
    useProxy(I4_PROXY_HTTP, refusing.port());
    EXPECT_EQ(theProtocol->listen(0, limit, I4_STREAM, target.get()), nullptr);

    // Granted, but nobody comes: the wait for the second reply ends with its time.
    const ScriptedProxy waiting({{bind4, granted4}});
    useProxy(I4_PROXY_SOCKS4, waiting.port());
    const auto door = theProtocol->listen(0, limit, I4_STREAM, target.get());
    ASSERT_TRUE(door);
    EXPECT_EQ(door->ready(I4_SELECT_READ | I4_SELECT_ERROR, briefly, nullptr), I4_SELECT_ERROR);
}

TEST(Proxy, TextsTellHowFarAHandshakeIs) {
    class Texts final : public i4_status_class {
      public:
        bool update(f32) override { return true; }
        void setText(const i4_string& text) override { all += std::string(text.view()) + "|"; }
        std::string all;
    } texts;
    const ScriptedProxy proxy({noPassword, {request5, granted5}});
    useProxy(I4_PROXY_SOCKS5, proxy.port());
    EXPECT_EQ(connectTo(host)->ready(writeOrError, limit, &texts), I4_SELECT_WRITE);
    EXPECT_EQ(texts.all,
              "Connecting to |SOCKS proxy connection|Connecting to index.example|SOCKS proxy connection|");
}

TEST(Proxy, NamesForTheProxyAreKeptAndGetNoDatagram) {
    i4_proxy_settings settings;
    settings.address = std::make_unique<i4_proxy_address>("proxy.example", u16{1080});
    const i4_proxy_settings copy = settings;
    settings.address->set_port(1);
    EXPECT_EQ(copy.address->get_port(), 1080);
    i4_owned_ram_file stream;
    copy.address->print(&stream);
    EXPECT_TRUE(copy.address->get_name(&stream));
    EXPECT_EQ(std::string(reinterpret_cast<char*>(stream.buffer()), stream.size()),
              "proxy.exampleproxy.example");
    // Its address bytes are 0, which the system takes for this machine.
    i4_tcpip_sock socket(I4_DATAGRAM);
    EXPECT_EQ(socket.write_to("ping", 4, *copy.address), -1);
}

TEST(Proxy, Base64PadsAsTheStandardTells) {
    const std::pair<std::string, const char*> table[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foob", "Zm9vYg=="}, {"\xff\xfe\xfd", "//79"}};
    for (const auto& [bytes, text] : table) EXPECT_EQ(i4_base64(bytes), text);
}

TEST(Proxy, TheHttpHeadersEndIsFound) {
    const std::pair<const char*, u32> table[] = {
        {"HTTP/1.0 200 OK\r\n\r\n", 1},
        {"HTTP/1.0 200 OK\r\naUTHORIZATION: bASIC x\r\n\r\n", 2},
        {"HTTP/1.0 200 OK\r\nX-Authorization: Basic x\r\n\r\n", 1},
        {"HTTP/1.0 200 OK\nX\n", 1},
        {"HTTP/1.0 200 OK\r\n\r", 0},
        {"HTTP/1.0 200 OK\n\n", 0},
        {"", 0},
    };
    for (const auto& [text, result] : table) EXPECT_EQ(i4_scan_http_header(text), result) << text;
}

}  // namespace
