// Sockets and socket sets on loopback: readiness, ends and resets, cancelling from another thread, and
// proxies.
#include "i4min/network/socket.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <functional>

#include "i4min/threads/linux/i4_time.h"
#include "tests/support/ScriptedProxy.h"
#include "tests/support/eventually.h"
#include "tests/support/files.h"
#include "tests/support/systemNetwork.h"

using namespace std::string_literals;

namespace {

constexpr u32 all = I4_SELECT_READ | I4_SELECT_WRITE | I4_SELECT_ERROR;
constexpr i32 limit = 60000;  // ms, for what must happen at once
constexpr i32 briefly = 100;  // ms, for what must not happen
constexpr u32 writeOrError = I4_SELECT_WRITE | I4_SELECT_ERROR;

std::unique_ptr<i4_address> loopback(u16 port) {
    auto address = systemNetwork().resolve("127.0.0.1", 0, 0);
    address->set_port(port);
    return address;
}

u16 portOf(i4_socket& socket) { return socket.local_address()->get_port(); }

std::unique_ptr<i4_socket> listenAnywhere() { return systemNetwork().listen(0, 500, I4_STREAM, nullptr); }

// Both ends of a connection over loopback.
struct Pair {
    Pair() {
        const auto door = listenAnywhere();
        near = systemNetwork().connect(*loopback(portOf(*door)), I4_STREAM, true);
        EXPECT_TRUE(door->accept(far));
    }
    // Ends the far side with a reset.
    void resetFar() {
        const linger at_once{1, 0};
        const int descriptor = static_cast<i4_tcpip_sock&>(*far).descriptor();
        ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        far.reset();
    }
    std::unique_ptr<i4_socket> near, far;
};

// Sets the proxy to use from now on. An empty user means none.
void useProxy(i32 type, u16 port, const std::string& user = "", const std::string& password = "") {
    i4_proxy_settings settings;
    settings.pType = type;
    settings.server = "127.0.0.1";
    settings.port = port;
    if (!user.empty()) settings.user = user.c_str();
    if (!user.empty()) settings.password = password.c_str();
    systemNetwork().setProxy(&settings);
}

// Runs `call` on its own thread and, once it blocks in the system, `then`. Returns when `call` has ended.
void whileBlocked(const std::function<void()>& call, const std::function<void()>& then) {
    std::atomic<int> task{0};
    std::thread thread([&] {
        task = ::gettid();
        call();
    });
    EXPECT_TRUE(eventually([&] {
        const std::string line = contentOf("/proc/self/task/" + std::to_string(task) + "/stat");
        return line.find(") S ") != std::string::npos;
    }));
    then();
    thread.join();
}

TEST(SocketSet, ReportsWhatWasAskedForAndLimitsItByTheMask) {
    Pair pair;
    linux_socket_set set;
    EXPECT_EQ(set.check(-1, all) | set.check(1000000, all), 0U);
    pair.near->add_to_set(set, all);
    EXPECT_EQ(pair.near->check_in_set(set, all), 0U);
    ASSERT_EQ(pair.far->write(i4_bytes("x")), 1);
    ASSERT_NE(pair.near->ready(I4_SELECT_READ, limit, nullptr), 0U);
    ASSERT_EQ(set.poll(limit), 1);
    EXPECT_EQ(pair.near->check_in_set(set, all), I4_SELECT_READ | I4_SELECT_WRITE);
    EXPECT_EQ(pair.near->check_in_set(set, I4_SELECT_READ), I4_SELECT_READ);
    pair.near->change_in_set(set, I4_SELECT_ERROR);
    EXPECT_EQ(set.poll(0), 0);
    EXPECT_EQ(pair.near->check_in_set(set, all), 0U);
    pair.resetFar();
    ASSERT_EQ(set.poll(limit), 1) << "a dead one is reported whatever was asked for";
    EXPECT_EQ(pair.near->check_in_set(set, all) & ~I4_SELECT_WRITE, I4_SELECT_READ | I4_SELECT_ERROR);
    pair.near->remove_from_set(set);
    set.wake();
    EXPECT_EQ(set.poll(limit), 0) << "a wake before the poll isn't lost";
    i32 result = -2;
    whileBlocked([&] { result = set.poll(limit); }, [&] { set.wake(); });
    EXPECT_EQ(result, 0);
}

TEST(SocketSet, GrowsBy32AndKeepsTheFirstOfRepeatedEntries) {
    linux_socket_set set;
    std::vector<int> descriptors;
    for (int i = 0; i < 33; ++i) {
        descriptors.push_back(::eventfd(1, EFD_CLOEXEC));  // readable
        EXPECT_EQ(set.capacity(), i == 0 ? 0U : 32U);
        set.add(descriptors.back(), I4_SELECT_READ, nullptr);
    }
    for (std::size_t i = 0; i < 33; i += 2) set.remove(descriptors[i]);
    set.remove(descriptors[0]);
    for (int i = 0; i < 100; ++i) {
        set.add(descriptors[0], I4_SELECT_READ, nullptr);
        set.remove(descriptors[0]);
    }
    EXPECT_EQ(set.capacity(), 64U) << "the room of the removed is used again";
    set.add(descriptors[0], I4_SELECT_WRITE, nullptr);
    set.add(descriptors[0], I4_SELECT_READ, nullptr);
    EXPECT_EQ(set.poll(0), 18);
    EXPECT_EQ(set.check(descriptors[0], all), I4_SELECT_WRITE);
    for (std::size_t i = 1; i < 33; ++i) {
        EXPECT_EQ(set.check(descriptors[i], all), i % 2 ? I4_SELECT_READ : 0U) << i;
    }
    for (const int descriptor : descriptors) ::close(descriptor);
}

TEST(Socket, TellsNothingYetFromTheEndFromAFullOneAndFromAReset) {
    Pair pair;
    u8 buffer[8];
    pair.near->set_blocking(false);
    EXPECT_EQ(pair.near->read(buffer), 0);
    EXPECT_FALSE(pair.near->atEnd());
    EXPECT_EQ(pair.far->write_more(i4_bytes("he")), 2);
    EXPECT_EQ(pair.far->write(i4_bytes("ad")), 2);
    pair.near->set_blocking(true);
    pair.near->readAll(std::span(buffer).first(4));
    EXPECT_EQ(i4_text(buffer).substr(0, 4), "head");
    EXPECT_EQ(pair.near->read({}), 0);
    EXPECT_FALSE(pair.near->atEnd());
    pair.far.reset();
    EXPECT_EQ(pair.near->read(buffer), 0);
    EXPECT_TRUE(pair.near->atEnd());

    Pair full;
    full.near->set_blocking(false);
    const std::vector<u8> block(1 << 20);
    while (const i32 sent = full.near->write(block)) ASSERT_GT(sent, 0);
    EXPECT_EQ(full.near->ready(I4_SELECT_WRITE, 0, nullptr), 0U);

    Pair reset;
    reset.resetFar();
    EXPECT_EQ(reset.near->read(buffer), -1);
    EXPECT_FALSE(reset.near->atEnd());
    EXPECT_EQ(reset.near->write(i4_bytes("x")), -1);  // and no SIGPIPE
}

TEST(Socket, CancelEndsTheCallThatBlocksAndEveryLaterOne) {
    Pair pair;
    u8 buffer[4];
    EXPECT_EQ(pair.near->ready(I4_SELECT_READ, 1, nullptr), 0U);
    EXPECT_EQ(pair.near->ready(all, -1, nullptr), I4_SELECT_WRITE);
    u32 events = 99;
    whileBlocked([&] { events = pair.near->ready(I4_SELECT_READ, -1, nullptr); },
                 [&] { EXPECT_TRUE(pair.near->cancel()); });
    EXPECT_EQ(events, 0U);
    EXPECT_FALSE(pair.near->cancel());
    EXPECT_EQ(pair.near->read(buffer), -1);
    EXPECT_EQ(pair.near->write(buffer), -1);
    EXPECT_EQ(pair.near->ready(all, -1, nullptr), 0U);
    std::unique_ptr<i4_socket> none;
    EXPECT_FALSE(pair.near->accept(none));
    EXPECT_LE(pair.far->read(buffer), 0);  // the other side hears of it
}

TEST(Protocol, ConnectTellsARefusedAddressFromOneThatStands) {
    auto door = listenAnywhere();
    const u16 port = portOf(*door);
    const auto eventsOfConnect = [&] {
        return systemNetwork()
            .connect(*loopback(port), I4_STREAM, false)
            ->ready(writeOrError, limit, nullptr);
    };
    EXPECT_EQ(eventsOfConnect(), I4_SELECT_WRITE);
    EXPECT_EQ(systemNetwork().listen(port, 500, I4_STREAM, nullptr), nullptr);  // the port is in use
    door.reset();
    EXPECT_EQ(systemNetwork().connect(*loopback(port), I4_STREAM, true), nullptr);
    EXPECT_TRUE(eventsOfConnect() & I4_SELECT_ERROR);
}

TEST(Protocol, ResolvesDottedTextHereAndNamesWhereTheProxyIs) {
    systemNetwork().setProxy(nullptr);
    i4_string text;
    addressToString(*systemNetwork().resolve("10.1.2.255", 99, 0), text);
    EXPECT_STREQ(text.c_str(), "10.1.2.255");
    addressToString(*systemNetwork().resolve("localhost", 0, 0), text);
    EXPECT_EQ(text.view().substr(0, 4), "127.");
    for (const char* bad : {"", static_cast<const char*>(nullptr), "no such name"}) {
        EXPECT_EQ(systemNetwork().resolve(bad, 0, 0), nullptr);
    }
    useProxy(I4_PROXY_SOCKS4, 1);
    EXPECT_FALSE(dynamic_cast<i4_proxy_address*>(systemNetwork().resolve("10.1.2.3", 0, 0).get()));
    useProxy(7, 1);
    EXPECT_TRUE(listenAnywhere()) << "one of no known type is none";
    for (const i32 type : {I4_PROXY_SOCKS5, I4_PROXY_HTTP}) {
        useProxy(type, 1);
        const auto named = systemNetwork().resolve("index.example", 0, 0);
        systemNetwork().setProxy(nullptr);
        EXPECT_STREQ(dynamic_cast<i4_proxy_address&>(*named).name.c_str(), "index.example");
        // It has no address; its zero bytes mean this machine to the system.
        EXPECT_EQ(systemNetwork().connect(*named, I4_STREAM, false), nullptr);
        EXPECT_EQ(i4_tcpip_sock(I4_DATAGRAM).write_to(i4_bytes("ping"), *named), -1);
    }
}

// Scripted proxies: the requests byte by byte, and how each state ends.
using Turns = std::vector<ProxyTurn>;

const std::string host = "index.example";
const std::string address = "10.1.2.3";
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

// Port 4661 of a host. Names are resolved by the proxy, whatever its type.
std::unique_ptr<i4_address> hostAt(const std::string& name) {
    if (name != address) return std::make_unique<i4_proxy_address>(name.c_str(), u16{4661});
    auto found = systemNetwork().resolve(name.c_str(), 0, 0);
    found->set_port(4661);
    return found;
}

std::unique_ptr<i4_proxy_sock> connectTo(const std::string& name) {
    auto socket = systemNetwork().connect(*hostAt(name), I4_STREAM, false);
    return std::unique_ptr<i4_proxy_sock>(static_cast<i4_proxy_sock*>(socket.release()));
}

void expectPong(i4_socket& socket) {
    u8 buffer[4];
    EXPECT_EQ(socket.write(i4_bytes("ping")), 4);
    socket.set_blocking(true);
    socket.readAll(std::span(buffer).first(4));
    EXPECT_EQ(i4_text(buffer).substr(0, 4), "pong");
}

TEST(Proxy, ATunnelStandsAndCarriesBytes) {
    const std::string longUser(255, 'u');
    const ProxyTurn longPassword{"\1\xff" + longUser + "\1p", "\1\0"s};
    const auto basic = [](const std::string& login) {
        return Turns{{requestHttp(host, "Proxy-authorization: Basic " + login + "\r\n"), granted_http}};
    };
    const struct {
        i32 type;
        std::string name, user, password;
        Turns turns;
    } table[] = {
        {I4_PROXY_SOCKS4, host, "", "", {{request4, granted4}}},
        {I4_PROXY_SOCKS4, address, "u", "p", {{"\4\1\x12\x35\x0a\1\2\3\0"s, "\4" + granted4.substr(1)}}},
        {I4_PROXY_SOCKS5, host, "", "", {noPassword, {request5, granted5}}},
        {I4_PROXY_SOCKS5, host, longUser, "p", {wantsPassword, longPassword, {request5, granted5}}},
        {I4_PROXY_HTTP, address, "", "", {{requestHttp(address), granted_http}}},
        {I4_PROXY_HTTP, host, "u", "\xff\xfe\xfd", basic("dTr//v0=")},
        {I4_PROXY_HTTP, host, "u", "pp", basic("dTpwcA==")},
    };
    for (const auto& row : table) {
        SCOPED_TRACE(std::to_string(row.type) + " " + row.name + " " + row.user);
        Turns turns = row.turns;
        turns.push_back({"ping", "pong"});
        const ScriptedProxy proxy(turns);
        useProxy(row.type, proxy.port(), row.user, row.password);
        const auto socket = connectTo(row.name);
        ASSERT_TRUE(socket);
        u8 byte = 0;
        EXPECT_EQ(socket->read({&byte, 1}), 0);
        EXPECT_EQ(socket->write(i4_bytes("early")), 0);
        EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_WRITE);
        ASSERT_EQ(socket->state(), i4_proxy_sock::connected);
        expectPong(*socket);
        if (row.type == I4_PROXY_HTTP) continue;
        EXPECT_EQ(ipOfAddress(*socket->target_address()), 0x0700000aU);  // what the proxy reported
        EXPECT_EQ(socket->target_address()->get_port(), 4662);
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
        {I4_PROXY_SOCKS4, {{request4, granted4.substr(0, 7)}}},
        {I4_PROXY_SOCKS5, {{"\5\2\0\2"s, "\4\0"s}}},
        {I4_PROXY_SOCKS5, {{"\5\2\0\2"s, "\5\xff"}}},
        {I4_PROXY_SOCKS5, {wantsPassword}},  // but none is set
        {I4_PROXY_SOCKS5, {wantsPassword, {"\1\1u\1p", "\1\1"}}, stay, limit, "u"},
        {I4_PROXY_SOCKS5, answer5("\5\5\0\1\0\0\0\0\0\0"s)},
        {I4_PROXY_SOCKS5, answer5("\5\0\0\3\0\0\0\0\0\0"s)},
        {I4_PROXY_SOCKS5, answer5("\4" + granted5.substr(1))},
        {I4_PROXY_SOCKS5, answer5(granted5.substr(0, 9))},
        {I4_PROXY_HTTP, http("HTTP/1.0 407 Proxy Authentication Required\r\n\r\n")},
        {I4_PROXY_HTTP, http("HTTP/1.0 2000 Odd\r\n\r\n")},
        {I4_PROXY_HTTP, http("HTTP/1.0 200 Connection established\r\nProxy-")},
        {I4_PROXY_HTTP, http("HTTP/1.0 200 " + std::string(2000, 'x') + "\r\n\r\n")},
        // An answer in pieces: the rest comes too late.
        {I4_PROXY_SOCKS4, {{request4, granted4.substr(0, 1)}}, stay},
        {I4_PROXY_SOCKS5, {{"\5\2\0\2"s, "\5"}}, stay},
        {I4_PROXY_HTTP, http("H"), stay},
        {I4_PROXY_SOCKS5, {wantsPassword}, stay, briefly, "u"},
        // Values that don't fit a request: nothing is sent, and no answer is awaited.
        {I4_PROXY_SOCKS4, {}, stay, limit, "", long256},
        {I4_PROXY_SOCKS5, {wantsPassword}, stay, limit, long256},
        {I4_PROXY_SOCKS5, {noPassword}, stay, limit, "", long256},
        {I4_PROXY_SOCKS5, {noPassword}, stay, limit, "", ""},
        {I4_PROXY_HTTP, {}, stay, limit, std::string(1000, 'u')},
        {I4_PROXY_HTTP, {}, stay, limit, "", "host HTTP/1.0\r\nEvil: yes"},
    };
    const u32 start = i4_ticks();
    for (const auto& row : table) {
        SCOPED_TRACE(&row - table);
        const ScriptedProxy proxy(row.turns, row.then);
        useProxy(row.type, proxy.port(), row.user, "p");
        const auto socket = connectTo(row.name);
        ASSERT_TRUE(socket);
        EXPECT_EQ(socket->ready(writeOrError, row.time, nullptr), I4_SELECT_ERROR);
        EXPECT_EQ(socket->state(), i4_proxy_sock::failed);
        EXPECT_EQ(socket->ready(writeOrError, limit, nullptr), I4_SELECT_ERROR);
        EXPECT_EQ(socket->ready(I4_SELECT_WRITE, limit, nullptr), 0U);
        u8 byte = 0;
        EXPECT_EQ(socket->read({&byte, 1}), 0);
        EXPECT_EQ(socket->write({&byte, 1}), 0);
    }
    EXPECT_LT(i4_ticks() - start, static_cast<u32>(limit));
}

TEST(Proxy, ThatIsNotThereFails) {
    systemNetwork().setProxy(nullptr);
    useProxy(I4_PROXY_SOCKS5, portOf(*listenAnywhere()));
    EXPECT_EQ(connectTo(host)->ready(writeOrError, limit, nullptr), I4_SELECT_ERROR);
    EXPECT_EQ(systemNetwork().connect(*hostAt(host), I4_STREAM, true), nullptr);
    i4_proxy_settings unknown;
    unknown.pType = I4_PROXY_SOCKS5;
    for (const char* server : {"no such name", static_cast<const char*>(nullptr)}) {
        unknown.server = server;
        systemNetwork().setProxy(&unknown);
        EXPECT_EQ(connectTo(host), nullptr);
    }
}

TEST(Proxy, AListenerGetsItsConnectionFromTheProxy) {
    systemNetwork().setProxy(nullptr);
    const auto target = hostAt(address);
    const std::pair<i32, Turns> table[] = {
        {I4_PROXY_SOCKS4, {{bind4, granted4 + "\0\x5a\x12\x37\x0a\0\0\x8"s}, {"ping", "pong"}}},
        {I4_PROXY_SOCKS5, {noPassword, {bind5, granted5 + "\5\0\0\1\x0a\0\0\x8\x12\x37"s}, {"ping", "pong"}}},
    };
    for (const auto& [type, turns] : table) {
        const ScriptedProxy proxy(turns);
        useProxy(type, proxy.port());
        const auto door = systemNetwork().listen(4662, limit, I4_STREAM, target.get());
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
    }
    EXPECT_EQ(systemNetwork().listen(0, limit, I4_STREAM, nullptr), nullptr);
    // Granted, but nobody connects: the wait for the second reply ends with its time limit.
    const ScriptedProxy waiting({{bind4, granted4}});
    useProxy(I4_PROXY_SOCKS4, waiting.port());
    const auto door = systemNetwork().listen(0, limit, I4_STREAM, target.get());
    ASSERT_TRUE(door);
    EXPECT_EQ(door->ready(I4_SELECT_READ | I4_SELECT_ERROR, briefly, nullptr), I4_SELECT_ERROR);
}

}  // namespace
