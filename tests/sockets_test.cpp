// Addresses, sockets and socket sets on loopback: readiness, ends and resets, and cancelling from another
// thread.
#include "i4min/network/socket.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/network/proxy.h"
#include "i4min/threads/linux/i4_time.h"
#include "tests/support/eventually.h"
#include "tests/support/files.h"

namespace {

constexpr u32 all = I4_SELECT_READ | I4_SELECT_WRITE | I4_SELECT_ERROR;
constexpr i32 limit = 60000;  // ms, for what shall happen at once

std::unique_ptr<i4_address> loopback(u16 port) {
    auto address = theProtocol->resolve("127.0.0.1", 0, 0);
    address->set_port(port);
    return address;
}

u16 portOf(i4_socket& socket) { return socket.local_address()->get_port(); }

std::unique_ptr<i4_socket> listenAnywhere() { return theProtocol->listen(0, 500, I4_STREAM, nullptr); }

// Both ends of a connection over loopback.
struct Pair {
    Pair() {
        const auto door = listenAnywhere();
        near = theProtocol->connect(*loopback(portOf(*door)), I4_STREAM, true);
        EXPECT_TRUE(door->accept(far));
    }
    // Makes the far end go with a reset instead of an end.
    void resetFar() {
        const linger at_once{1, 0};
        const int descriptor = static_cast<i4_tcpip_sock&>(*far).descriptor();
        ::setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
        far.reset();
    }
    std::unique_ptr<i4_socket> near, far;
};

// A thread that makes a call; blocked() is true when it sleeps in the system.
class Caller {
  public:
    template <class Call>
    explicit Caller(Call call)
        : thread_([this, call] {
              task_ = ::gettid();
              call();
              done_ = true;
          }) {}
    ~Caller() { thread_.join(); }

    bool blocked() const {
        return eventually([this] {
                   if (done_ || task_ == 0) return bool{done_};
                   const std::string line = contentOf("/proc/self/task/" + std::to_string(task_) + "/stat");
                   const std::size_t at = line.rfind(") ");
                   return at != std::string::npos && line[at + 2] == 'S';
               }) &&
               !done_;
    }

  private:
    std::atomic<int> task_{0};
    std::atomic<bool> done_{false};
    std::thread thread_;
};

class CollectingStatus final : public i4_status_class {
  public:
    bool update(f32 fraction) override {
        fractions.push_back(fraction);
        return fractions.size() < give_up_after;
    }
    void setText(const i4_string&) override {}
    std::vector<f32> fractions;
    std::size_t give_up_after = 1000;
};

TEST(Address, PrintsComparesAndCopiesAnAddress) {
    i4_tcpip_address address;
    ASSERT_EQ(::inet_aton("10.0.2.255", &address.address.sin_addr), 1);
    address.set_port(4661);
    EXPECT_EQ(ntohs(address.address.sin_port), 4661);
    const auto other = address.copy();
    EXPECT_EQ(other->get_port(), 4661);
    other->set_port(1);
    EXPECT_TRUE(address.equals(*other));
    EXPECT_FALSE(address.equals(i4_tcpip_address()));
    i4_owned_ram_file stream;
    stream.printf("%I ", &address);
    stream.write_32(ipOfAddress(*other));
    stream.write_8(0);
    EXPECT_STREQ(reinterpret_cast<char*>(stream.buffer()), "10.0.2.255 \x0a");
    EXPECT_EQ(std::memcmp(stream.buffer() + 11, "\x0a\x00\x02\xff", 4), 0);
}

TEST(SocketSet, ReportsWhatWasAskedForAndLimitsItByTheMask) {
    Pair pair;
    linux_socket_set set;
    EXPECT_EQ(set.check(1000000, all), 0U);
    EXPECT_EQ(set.check(-1, all), 0U);
    pair.near->add_to_set(set, all);
    EXPECT_EQ(pair.near->check_in_set(set, all), 0U);
    ASSERT_EQ(set.poll(limit), 1);
    EXPECT_EQ(pair.near->check_in_set(set, all), I4_SELECT_WRITE);
    ASSERT_EQ(pair.far->write("x", 1), 1);
    ASSERT_NE(pair.near->ready(I4_SELECT_READ, limit, nullptr), 0U);
    ASSERT_EQ(set.poll(limit), 1);
    EXPECT_EQ(pair.near->check_in_set(set, all), I4_SELECT_READ | I4_SELECT_WRITE);
    EXPECT_EQ(pair.near->check_in_set(set, I4_SELECT_READ), I4_SELECT_READ);
    EXPECT_EQ(pair.far->check_in_set(set, all), 0U);

    pair.near->change_in_set(set, I4_SELECT_ERROR);
    EXPECT_EQ(set.poll(0), 0);
    EXPECT_EQ(pair.near->check_in_set(set, all), 0U);
    pair.far->remove_from_set(set);
    EXPECT_EQ(set.count(), 1U);
    pair.near->remove_from_set(set);
    EXPECT_EQ(set.count(), 0U);
    EXPECT_EQ(set.poll(0), 0);
}

TEST(SocketSet, ADeadSocketIsReportedWhateverWasAskedFor) {
    linux_socket_set set;
    Pair reset;
    reset.near->add_to_set(set, I4_SELECT_ERROR);
    reset.resetFar();
    ASSERT_EQ(set.poll(limit), 1);
    EXPECT_EQ(reset.near->check_in_set(set, all) & (I4_SELECT_READ | I4_SELECT_ERROR),
              I4_SELECT_READ | I4_SELECT_ERROR);
    reset.near->remove_from_set(set);

    Pair cancelled;
    cancelled.near->add_to_set(set, I4_SELECT_WRITE);
    EXPECT_TRUE(cancelled.near->cancel());
    ASSERT_EQ(set.poll(limit), 1);
    EXPECT_NE(cancelled.near->check_in_set(set, I4_SELECT_READ), 0U);
    EXPECT_NE(cancelled.near->check_in_set(set, I4_SELECT_ERROR), 0U);
}

TEST(SocketSet, GrowsBy32AndKeepsTheFirstOfRepeatedEntries) {
    linux_socket_set set;
    std::vector<int> descriptors;
    for (int i = 0; i < 33; ++i) {
        descriptors.push_back(::eventfd(1, EFD_CLOEXEC));  // readable
        EXPECT_EQ(set.capacity(), i == 0 ? 0U : 32U);
        set.add(descriptors.back(), I4_SELECT_READ);
    }
    EXPECT_EQ(set.capacity(), 64U);
    EXPECT_EQ(set.poll(0), 33);
    // Removing in any order, before and after a poll, leaves the others findable.
    for (int i = 0; i < 33; i += 2) set.remove(descriptors[static_cast<std::size_t>(i)]);
    set.remove(descriptors[0]);
    EXPECT_EQ(set.count(), 16U);
    set.add(descriptors[0], I4_SELECT_WRITE);
    EXPECT_EQ(set.check(descriptors[1], all), I4_SELECT_READ);
    EXPECT_EQ(set.poll(0), 17);
    for (int i = 1; i < 33; ++i) {
        EXPECT_EQ(set.check(descriptors[static_cast<std::size_t>(i)], all), i % 2 ? I4_SELECT_READ : 0U) << i;
    }
    set.add(descriptors[0], I4_SELECT_READ);
    EXPECT_EQ(set.poll(0), 18);
    EXPECT_EQ(set.check(descriptors[0], all), I4_SELECT_WRITE);
    set.remove(descriptors[0]);
    EXPECT_EQ(set.count(), 16U);
    EXPECT_EQ(set.poll(0), 16);
    EXPECT_EQ(set.check(descriptors[0], all), 0U);
    for (int i = 0; i < 5000; ++i) {
        set.add(descriptors[0], I4_SELECT_READ);
        set.remove(descriptors[0]);
    }
    EXPECT_EQ(set.capacity(), 64U) << "the room of the removed is used again";
    for (const int descriptor : descriptors) ::close(descriptor);
}

TEST(SocketSet, AnotherThreadWakesThePoll) {
    linux_socket_set set;
    set.wake();
    EXPECT_EQ(set.poll(limit), 0);  // before the poll: not lost
    const u32 start = i4_ticks();
    i32 result = -2;
    {
        const Caller caller([&] { result = set.poll(limit); });
        EXPECT_TRUE(caller.blocked());
        set.wake();
    }
    EXPECT_EQ(result, 0);
    EXPECT_LT(i4_ticks() - start, static_cast<u32>(limit));
}

TEST(Socket, TellsNothingYetFromTheEndFromAFullOneAndFromAReset) {
    Pair pair;
    char buffer[8];
    pair.near->set_blocking(false);
    EXPECT_EQ(pair.near->read(buffer, sizeof buffer), 0);
    EXPECT_FALSE(pair.near->atEnd());
    EXPECT_EQ(pair.far->write_more("he", 2), 2);
    EXPECT_EQ(pair.far->write("ad", 2), 2);
    pair.near->set_blocking(true);
    pair.near->readAll(buffer, 4);
    EXPECT_EQ(std::string(buffer, 4), "head");
    EXPECT_EQ(pair.near->read(buffer, 0), 0);
    EXPECT_FALSE(pair.near->atEnd());
    pair.far.reset();
    EXPECT_EQ(pair.near->read(buffer, sizeof buffer), 0);
    EXPECT_TRUE(pair.near->atEnd());

    Pair full;
    full.near->set_blocking(false);
    const std::vector<char> block(1 << 20);
    i32 sent = 1;
    while (sent > 0) sent = full.near->write(block.data(), static_cast<u32>(block.size()));
    EXPECT_EQ(sent, 0);
    EXPECT_EQ(full.near->ready(I4_SELECT_WRITE, 0, nullptr), 0U);

    Pair reset;
    reset.resetFar();
    EXPECT_EQ(reset.near->read(buffer, sizeof buffer), -1);
    EXPECT_FALSE(reset.near->atEnd());
    EXPECT_EQ(reset.near->write("x", 1), -1);  // and no SIGPIPE
}

TEST(Socket, ReadyWaitsNoLongerThanItShall) {
    Pair pair;
    EXPECT_EQ(pair.near->ready(I4_SELECT_READ, 0, nullptr), 0U);
    EXPECT_EQ(pair.near->ready(I4_SELECT_READ, 1, nullptr), 0U);
    EXPECT_EQ(pair.near->ready(all, -1, nullptr), I4_SELECT_WRITE);

    CollectingStatus status;
    EXPECT_EQ(pair.near->ready(I4_SELECT_READ, 150, &status), 0U);
    ASSERT_GE(status.fractions.size(), 2U);
    EXPECT_EQ(status.fractions.back(), 1.0F);
    EXPECT_TRUE(std::is_sorted(status.fractions.begin(), status.fractions.end()));
    CollectingStatus impatient;
    impatient.give_up_after = 1;
    EXPECT_EQ(pair.near->ready(I4_SELECT_READ, limit, &impatient), 0U);
    EXPECT_EQ(pair.near->ready(I4_SELECT_WRITE, limit, &status), 1U);
}

TEST(Socket, CancelClosesAndEveryLaterCallFails) {
    Pair pair;
    char buffer[4];
    ASSERT_EQ(pair.far->write("data", 4), 4);
    EXPECT_TRUE(pair.near->cancel());
    EXPECT_FALSE(pair.near->cancel());
    EXPECT_EQ(pair.near->read(buffer, 4), -1);
    EXPECT_EQ(pair.near->write(buffer, 4), -1);
    EXPECT_EQ(pair.near->write_more(buffer, 4), -1);
    EXPECT_EQ(pair.near->ready(all, -1, nullptr), 0U);
    std::unique_ptr<i4_socket> none;
    EXPECT_FALSE(pair.near->accept(none));
    EXPECT_LE(pair.far->read(buffer, 4), 0);  // the other side hears of it

    const auto udp = theProtocol->listen(0, 500, I4_DATAGRAM, nullptr);
    EXPECT_TRUE(udp->cancel());
    EXPECT_EQ(udp->read_from(buffer, 4, nullptr), -1);
    EXPECT_EQ(udp->write_to(buffer, 4, *loopback(1)), -1);

    const auto door = listenAnywhere();
    const u16 port = portOf(*door);
    EXPECT_TRUE(door->cancel());
    EXPECT_EQ(theProtocol->connect(*loopback(port), I4_STREAM, true), nullptr);
}

// Cancels the socket while another thread's call on it blocks; `call` fails then.
void expectCancelled(i4_socket& socket, const std::function<bool()>& call) {
    bool result = true;
    {
        const Caller caller([&] { result = call(); });
        EXPECT_TRUE(caller.blocked());
        EXPECT_TRUE(socket.cancel());
    }
    EXPECT_FALSE(result);
    EXPECT_FALSE(socket.cancel());
}

TEST(Socket, CancelEndsABlockedCall) {
    Pair pair, other;
    expectCancelled(*pair.near, [&] { return pair.near->ready(I4_SELECT_READ, -1, nullptr) != 0; });
    CollectingStatus status;
    expectCancelled(*other.near, [&] { return other.near->ready(I4_SELECT_READ, limit, &status) != 0; });
    const auto door = listenAnywhere();
    std::unique_ptr<i4_socket> none;
    expectCancelled(*door, [&] { return door->accept(none); });
    EXPECT_EQ(none, nullptr);
    // A listener whose queue is full lets further attempts wait.
    const auto full = listenAnywhere();
    ASSERT_EQ(::listen(static_cast<i4_tcpip_sock&>(*full).descriptor(), 0), 0);
    const auto address = loopback(portOf(*full));
    std::vector<std::unique_ptr<i4_socket>> queued;
    for (int i = 0; i < 4; ++i) queued.push_back(theProtocol->connect(*address, I4_STREAM, false));
    i4_tcpip_sock socket(I4_STREAM);
    expectCancelled(socket, [&] { return socket.connect(static_cast<i4_tcpip_address&>(*address), true); });
}

TEST(Socket, AcceptWaitsOnlyOnABlockingDoor) {
    const auto door = listenAnywhere();
    door->set_blocking(false);
    std::unique_ptr<i4_socket> socket;
    EXPECT_FALSE(door->accept(socket));
    EXPECT_EQ(errno, EAGAIN);
    door->set_blocking(true);
    std::unique_ptr<i4_socket> near;
    bool accepted = false;
    {
        const Caller caller([&] { accepted = door->accept(socket); });
        EXPECT_TRUE(caller.blocked());
        near = theProtocol->connect(*loopback(portOf(*door)), I4_STREAM, true);
    }
    ASSERT_TRUE(accepted && near);
    EXPECT_TRUE(socket->remote_address()->equals(*loopback(0)));
    EXPECT_EQ(socket->remote_address()->get_port(), portOf(*near));
    EXPECT_EQ(door->remote_address(), nullptr);
}

TEST(Socket, DatagramsCarryTheirSender) {
    const auto here = theProtocol->listen(0, 500, I4_DATAGRAM, nullptr);
    const auto there = theProtocol->listen(0, 500, I4_DATAGRAM, nullptr);
    here->set_blocking(false);
    char buffer[16];
    std::unique_ptr<i4_address> from;
    EXPECT_EQ(here->read_from(buffer, sizeof buffer, &from), -1);
    EXPECT_EQ(from, nullptr);
    EXPECT_EQ(there->write_to("ping", 4, *loopback(portOf(*here))), 4);
    ASSERT_NE(here->ready(I4_SELECT_READ, limit, nullptr), 0U);
    EXPECT_EQ(here->read_from(buffer, sizeof buffer, &from), 4);
    ASSERT_TRUE(from && from->equals(*loopback(0)));
    EXPECT_EQ(from->get_port(), portOf(*there));
}

TEST(Protocol, ConnectTellsARefusedAddressFromOneThatStands) {
    auto door = listenAnywhere();
    const u16 port = portOf(*door);
    auto good = theProtocol->connect(*loopback(port), I4_STREAM, false);
    EXPECT_EQ(good->ready(I4_SELECT_WRITE | I4_SELECT_ERROR, limit, nullptr), I4_SELECT_WRITE);
    EXPECT_EQ(theProtocol->listen(port, 500, I4_STREAM, nullptr), nullptr);  // the port is taken
    door.reset();

    EXPECT_EQ(theProtocol->connect(*loopback(port), I4_STREAM, true), nullptr);
    const auto refused = theProtocol->connect(*loopback(port), I4_STREAM, false);
    const u32 mask = refused->ready(I4_SELECT_WRITE | I4_SELECT_ERROR, limit, nullptr);
    EXPECT_NE(mask, I4_SELECT_WRITE);
    EXPECT_NE(mask, 0U);
}

TEST(Protocol, ResolvesDottedTextHereAndNamesWhereTheProxyIs) {
    makeProtocol(nullptr);
    i4_string text;
    addressToString(*theProtocol->resolve("10.1.2.3", 0, 0), text);
    EXPECT_STREQ(text.c_str(), "10.1.2.3");
    EXPECT_EQ(theProtocol->resolve("10.1.2.3", 99, 0)->get_port(), 0);
    sockaddr_in first{};
    i4_host_info host;
    const bool known = i4_find_local_ip(first);
    EXPECT_EQ(theProtocol->get_local_host(host), known);
    EXPECT_TRUE(!known || host.addresses[0]->equals(i4_tcpip_address(first)));
    addressToString(*theProtocol->resolve("localhost", 0, 0), text);
    EXPECT_EQ(text.view().substr(0, 4), "127.");
    EXPECT_EQ(theProtocol->resolve("", 0, 0), nullptr);
    EXPECT_EQ(theProtocol->resolve(nullptr, 0, 0), nullptr);
    EXPECT_EQ(theProtocol->resolve("no such name", 0, 0), nullptr);

    i4_proxy_settings settings;
    settings.server = "127.0.0.1";
    for (const i32 type : {I4_PROXY_SOCKS5, I4_PROXY_HTTP}) {
        settings.pType = type;
        makeProtocol(&settings);
        const auto named = theProtocol->resolve("index.example", 0, 0);
        const auto* proxied = dynamic_cast<i4_proxy_address*>(named.get());
        ASSERT_TRUE(proxied);
        EXPECT_STREQ(proxied->name.c_str(), "index.example");
        EXPECT_EQ(ipOfAddress(*named), 0U);
        makeProtocol(nullptr);
        EXPECT_EQ(theProtocol->connect(*named, I4_STREAM, false), nullptr);  // it has no address of its own
    }
    settings.pType = I4_PROXY_SOCKS4;
    makeProtocol(&settings);
    EXPECT_EQ(dynamic_cast<i4_proxy_address*>(theProtocol->resolve("10.1.2.3", 0, 0).get()), nullptr);
    makeProtocol(nullptr);
}

TEST(Protocol, SocketsAndCallsOutliveTheProtocolThatMadeThem) {
    Pair pair;
    std::atomic<bool> stop{false};
    std::thread other([&] {
        while (!stop) EXPECT_TRUE(theProtocol->resolve("10.1.2.3", 0, 0));
    });
    for (int i = 0; i < 200; ++i) makeProtocol(nullptr);
    stop = true;
    other.join();
    EXPECT_EQ(pair.near->write("x", 1), 1);
}

// Runs look-ups with a program of ours in nslookup's place.
TEST(Protocol, NslookupReadsTheAnswerAndAsksForNoDangerousName) {
    const TemporaryDirectory folder;
    const std::string program = folder.file("nslookup");
    writeFile(program,
              "#!/bin/sh\n"
              "echo asked >> \"$(dirname \"$0\")/asked\"\n"
              "echo 'Server: 9.9.9.9'\n"
              "echo \"Name:  $3\"\n"
              "case $3 in bad*) echo 'Address: 1.2.3.256';;\n"
              "none*) ;; *) echo 'Address:  10.0.2.7';; esac\n");
    std::filesystem::permissions(program, std::filesystem::perms::owner_all);
    const std::string path = ::getenv("PATH");
    ::setenv("PATH", (folder.path() + ":" + path).c_str(), 1);
    u32 ip = 0;
    for (const char* name : {"", "-debug", "a;touch x", "$(id)"}) EXPECT_FALSE(i4_nslookup(name, ip)) << name;
    EXPECT_FALSE(exists(folder.file("asked")));
    EXPECT_FALSE(i4_nslookup("bad.example", ip));
    EXPECT_FALSE(i4_nslookup("none.example", ip));
    EXPECT_TRUE(i4_nslookup("index.example", ip));
    EXPECT_EQ(std::memcmp(&ip, "\x0a\x00\x02\x07", 4), 0);
    ::setenv("PATH", path.c_str(), 1);
}

}  // namespace
