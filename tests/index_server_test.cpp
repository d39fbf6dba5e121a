// The index server: over real sockets where sockets matter, by a clock of the test's own where time does.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "i4min/file/file.h"
#include "index/FrameReader.h"
#include "index/IndexServer.h"
#include "index/options.h"
#include "meta/FileList.h"
#include "meta/FileMeta.h"
#include "tests/support/Process.h"
#include "tests/support/damage.h"

namespace {

constexpr u32 loopback = 0x0100007F;

Bytes framed(const Bytes& body) {
    Bytes bytes;
    ByteWriter(bytes).put8(packetMarker).put32(static_cast<u32>(body.size())).put(body);
    return bytes;
}

Bytes request(u8 opcode, const Bytes& payload = {}) {
    Bytes body{opcode};
    body.insert(body.end(), payload.begin(), payload.end());
    return body;
}

Bytes number(u32 value) {
    Bytes bytes;
    ByteWriter(bytes).put32(value);
    return bytes;
}

MD4Hash hashOf(u32 value) {
    MD4Hash hash;
    hash.bytes = {9, static_cast<u8>(value), static_cast<u8>(value >> 8), static_cast<u8>(value >> 16)};
    return hash;
}

Bytes bytesOf(const MD4Hash& hash) { return Bytes(hash.bytes.begin(), hash.bytes.end()); }

// The log-on of "abcde" with door port and, as its only other tag, the version 59.
Bytes logOn(u16 port) {
    Bytes body{1};
    ByteWriter(body).hash(hashOf(77)).put32(0).put16(port).put32(2);
    const Bytes tags = {2, 1, 0, 1, 5, 0, 'a', 'b', 'c', 'd', 'e', 3, 1, 0, 0x11, 0x3B, 0, 0, 0};
    body.insert(body.end(), tags.begin(), tags.end());
    return body;
}

Bytes publish(u32 first, u32 count, const std::string& name) {
    Bytes body{21};
    ByteWriter writer(body);
    writer.put32(count);
    for (u32 i = first; i < first + count; ++i) {
        const char nameRow = TAG_NAME;
        writer.hash(hashOf(i)).put32(0).put16(0).put32(1).put8(2);
        writer.text({&nameRow, 1}).text(name + " " + std::to_string(i));
    }
    return body;
}

Bytes search(const std::string& text) {
    Bytes body{22, 1};
    ByteWriter(body).text(text);
    return body;
}

// One answer: opcode and payload.
struct Answer {
    u8 opcode = 0;
    Bytes payload;
    ByteReader in() const { return ByteReader(payload); }
};

struct Results {
    std::vector<std::string> names;
    std::vector<u32> availability;
    bool more = false;
};

Results resultsOf(const Answer& answer) {
    Results results;
    EXPECT_EQ(answer.opcode, 51);
    Bytes bytes = answer.payload;
    i4_ram_file_class stream(bytes.data(), static_cast<u32>(bytes.size()), 0);
    stream.setUsed(static_cast<u32>(bytes.size()));
    FileList list;
    EXPECT_TRUE(list.fromNetwork(stream));
    for (const FileMeta* file : list.snapshot()) {
        results.names.emplace_back(file->getName());
        results.availability.push_back(file->getInt(TAG_AVAILABILITY));
    }
    EXPECT_EQ(*stream.bytesLeft(), 1u);
    results.more = stream.read_8() != 0;
    list.deleteAll();
    return results;
}

std::vector<u8> opcodes(const std::vector<Answer>& answers) {
    std::vector<u8> result;
    for (const Answer& answer : answers) result.push_back(answer.opcode);
    return result;
}

// --- The service, with a clock of the test's own

class NullLog : public EventLog {
  public:
    NullLog() : EventLog(Level::debug) {}
    void write(const char* line) override { lines.emplace_back(line); }
    std::vector<std::string> lines;
};

class Net : public IndexNetwork {
  public:
    void testDoor(const IndexSession& session) override { doors.push_back(session.number); }
    void sendDatagram(const NetAddress& to, ByteSpan bytes) override {
        datagrams.emplace_back(to, Bytes(bytes.begin(), bytes.end()));
    }
    std::vector<ClientNumber> doors;
    std::vector<std::pair<NetAddress, Bytes>> datagrams;
};

class Service : public testing::Test {
  protected:
    static IndexIdentity identity() {
        IndexIdentity result;
        result.description = "a test";
        result.message = "hello";
        result.peerServers = {{loopback, 4000}, {0x04030201, 5000}};
        result.maxClients = 50;
        return result;
    }

    IndexSession* arrive(u32 ip = 0x05010A0A) {
        Bytes refusal;
        return service.opened({ip, 1234}, {loopback, 4661}, now, refusal);
    }
    IndexSession* online(bool reachable, u16 port = 4662, u32 ip = 0x05010A0A) {
        IndexSession* session = arrive(ip);
        service.packet(*session, logOn(port), now);
        service.doorTested(session->number, reachable, now);
        answers(*session);
        return session;
    }
    // What the service has appended since the last call.
    std::vector<Answer> answers(IndexSession& session) {
        while (service.step(now)) {
        }
        FrameReader frames;
        frames.feed(session.output);
        session.output.clear();
        std::vector<Answer> result;
        for (Bytes body; frames.next(body, 1u << 30);) {
            result.push_back({body[0], Bytes(body.begin() + 1, body.end())});
        }
        EXPECT_EQ(frames.size(), 0u);
        return result;
    }
    std::vector<Answer> ask(IndexSession& session, const Bytes& body) {
        service.packet(session, body, now);
        return answers(session);
    }
    bool dropped(const IndexSession& session) { return session.phase == IndexSession::Phase::closing; }

    u64 now = 1'000'000;
    NullLog log;
    Net net;
    IndexLimits limits;
    IndexService service{identity(), limits, net, log};
};

TEST_F(Service, LogsOnWithAHighOrALowId) {
    struct {
        u32 ip;
        bool reachable;
        u32 id;  // 0 for any low one
    } const table[] = {
        {0x05010A0A, true, 0x05010A0A},
        {0x05010A0A, false, 0},
        {0x00010A0A, true, 0},  // 10.10.1.0 is no number above the low IDs
    };
    std::set<u32> lowIds;
    for (const auto& row : table) {
        IndexSession* session = arrive(row.ip);
        EXPECT_THAT(ask(*session, logOn(4662)), testing::IsEmpty()) << "no answer before the door was tested";
        EXPECT_EQ(net.doors.back(), session->number);
        service.doorTested(session->number, row.reachable, now);
        const std::vector<Answer> got = answers(*session);
        ASSERT_THAT(opcodes(got), testing::ElementsAre(64, 56, 52, 65));
        const u32 id = got[0].in().read32();
        if (row.id) {
            EXPECT_EQ(id, row.id);
        } else {
            EXPECT_TRUE(id > 0 && id < 0xFFFFFF && lowIds.insert(id).second) << id;
        }
        EXPECT_EQ(got[1].in().text(), "hello");
        EXPECT_EQ(got[2].in().read32(), service.users());
        EXPECT_EQ(session->name, "abcde");
        service.doorTested(session->number, !row.reachable, now);
        EXPECT_EQ(session->id, id) << "tested twice";
    }
}

TEST_F(Service, DropsWhoDoesntKeepToTheProtocol) {
    const Bytes cut = [] {
        Bytes body = logOn(1);
        body.pop_back();
        return body;
    }();
    for (const Bytes& first : {search("x"), Bytes{}, request(99), cut, request(1)}) {
        IndexSession* session = arrive();
        ask(*session, first);
        EXPECT_TRUE(dropped(*session)) << testing::PrintToString(first);
        service.closed(*session);
    }
    const Bytes shortList = [] {
        Bytes body = publish(1, 2, "x");
        body.resize(body.size() - 3);
        return body;
    }();
    const Bytes hugeList = request(21, {0xff, 0xff, 0xff, 0x7f});
    for (const Bytes& later :
         {logOn(1), request(25, {1, 2}), request(28), request(21), shortList, hugeList}) {
        IndexSession* session = online(true);
        ask(*session, later);
        EXPECT_TRUE(dropped(*session)) << testing::PrintToString(later);
        service.closed(*session);
    }
    EXPECT_EQ(service.index().fileCount(), 0u) << "what was read of a broken list goes with its client";
    IndexSession* session = online(true);
    for (const Bytes& harmless : {request(2), request(200, {1, 2, 3}), request(20, {9, 9})}) {
        ask(*session, harmless);
        EXPECT_FALSE(dropped(*session)) << testing::PrintToString(harmless);
    }
}

TEST_F(Service, SearchesPageByPage) {
    IndexSession* sharer = online(true);
    IndexSession* asker = online(false);
    ask(*sharer, publish(0, 450, "Some FILM"));
    ask(*sharer, publish(1000, 3, "a song"));
    ask(*asker, publish(1001, 1, "the same song"));
    EXPECT_EQ(service.index().fileCount(), 453u);

    auto got = ask(*asker, search("film"));
    ASSERT_EQ(got.size(), 1u);
    Results page = resultsOf(got[0]);
    EXPECT_EQ(page.names.size(), 200u);
    EXPECT_EQ(page.names[0], "Some FILM 0");
    EXPECT_TRUE(page.more);
    page = resultsOf(ask(*asker, request(33)).at(0));
    EXPECT_EQ(page.names.size(), 200u);
    EXPECT_EQ(page.names[0], "Some FILM 200");
    EXPECT_TRUE(page.more);
    page = resultsOf(ask(*asker, request(33)).at(0));
    EXPECT_EQ(page.names.size(), 50u);
    EXPECT_FALSE(page.more);
    EXPECT_EQ(resultsOf(ask(*asker, request(33)).at(0)).names.size(), 0u);

    Bytes alternate = search("SONG");
    alternate[0] = 26;
    page = resultsOf(ask(*asker, alternate).at(0));
    EXPECT_THAT(page.names, testing::ElementsAre("a song 1000", "a song 1001", "a song 1002"));
    EXPECT_THAT(page.availability, testing::ElementsAre(1u, 2u, 1u));

    for (const Bytes& nothing :
         {request(22), request(22, {7}), search("nowhere"), search(std::string(9000, 'x'))}) {
        page = resultsOf(ask(*asker, nothing).at(0));
        EXPECT_EQ(page.names.size(), 0u);
        EXPECT_FALSE(page.more);
    }
    service.closed(*sharer);
    EXPECT_THAT(resultsOf(ask(*asker, search("s")).at(0)).names, testing::ElementsAre("a song 1001"));
}

TEST_F(Service, NamesSourcesOfUse) {
    const Bytes list = publish(5, 1, "wanted");
    IndexSession* open = online(true, 1111);
    IndexSession* firewalled = online(false, 2222);
    IndexSession* asker = online(true, 3333);
    IndexSession* lowAsker = online(false, 4444);
    for (IndexSession* session : {open, firewalled, asker}) ask(*session, list);
    const auto ports = [&](const Answer& answer) {
        EXPECT_EQ(answer.opcode, 66);
        ByteReader in = answer.in();
        EXPECT_EQ(in.hash(), hashOf(5));
        std::set<u16> result;
        for (u8 count = in.read8(); count > 0; --count) {
            in.read32();
            result.insert(in.read16());
        }
        EXPECT_EQ(in.left(), 0u);
        return result;
    };
    const Bytes wanted = request(25, bytesOf(hashOf(5)));
    EXPECT_THAT(ports(ask(*asker, wanted).at(0)), testing::ElementsAre(1111, 2222)) << "not itself";
    EXPECT_THAT(ports(ask(*lowAsker, wanted).at(0)), testing::ElementsAre(1111, 3333)) << "whom it can call";
    const Answer none = ask(*asker, request(25, bytesOf(hashOf(6)))).at(0);
    EXPECT_EQ(none.payload.back(), 0);
}

TEST_F(Service, ManySourcesComeInTurns) {
    std::vector<IndexSession*> sessions;
    IndexIdentity wide;
    wide.maxClients = 1000;
    IndexService large(wide, limits, net, log);
    Bytes refusal;
    for (u16 port = 1; port <= 401; ++port) {
        IndexSession* session = large.opened({0x05010A0A, port}, {}, now, refusal);
        large.packet(*session, logOn(port), now);
        large.doorTested(session->number, true, now);
        large.packet(*session, publish(5, 1, "wanted"), now);
        sessions.push_back(session);
    }
    while (large.step(now)) {
    }
    std::set<u16> seen;
    for (int i = 0; i < 3; ++i) {
        sessions[0]->output.clear();
        large.packet(*sessions[0], request(25, bytesOf(hashOf(5))), now);
        ByteReader in(ByteSpan(sessions[0]->output).subspan(6 + 16));
        const u8 count = in.read8();
        EXPECT_EQ(count, 255);
        for (u8 k = 0; k < count; ++k) {
            in.read32();
            seen.insert(in.read16());
        }
        EXPECT_EQ(in.left(), 0u);
    }
    EXPECT_EQ(seen.size(), 400u);
}

TEST_F(Service, PassesCallbacksOn) {
    IndexSession* low = online(false);
    IndexSession* otherLow = online(false);
    IndexSession* high = online(true, 4711);
    EXPECT_THAT(ask(*high, request(28, number(low->id))), testing::IsEmpty());
    const auto asked = answers(*low);
    ASSERT_THAT(opcodes(asked), testing::ElementsAre(53));
    ByteReader in = asked[0].in();
    EXPECT_EQ(in.read32(), high->id);
    EXPECT_EQ(in.read16(), 4711);

    for (const auto& [session, id] : {std::pair{otherLow, low->id}, {high, 0x777777u}, {high, high->id}}) {
        const auto failed = ask(*session, request(28, number(id)));
        ASSERT_THAT(opcodes(failed), testing::ElementsAre(54));
        EXPECT_EQ(failed[0].in().read32(), id);
    }
    EXPECT_THAT(answers(*low), testing::IsEmpty());
    const u32 id = low->id;
    service.closed(*low);
    EXPECT_THAT(opcodes(ask(*high, request(28, number(id)))), testing::ElementsAre(54));
}

TEST_F(Service, TellsServersAndStatusAndNoticesSilence) {
    IndexSession* session = online(true);
    const auto servers = ask(*session, request(20));
    ASSERT_THAT(opcodes(servers), testing::ElementsAre(50));
    EXPECT_EQ(servers[0].payload, (Bytes{2, 127, 0, 0, 1, 0xa0, 0x0f, 1, 2, 3, 4, 0x88, 0x13}));

    service.tick(now);
    EXPECT_THAT(opcodes(answers(*session)), testing::ElementsAre(52));
    ask(*session, publish(1, 1, "x"));
    service.tick(now += 29'000);
    EXPECT_THAT(answers(*session), testing::IsEmpty()) << "at most every 30 seconds";
    service.tick(now += 1000);
    const auto status = answers(*session);
    ASSERT_THAT(opcodes(status), testing::ElementsAre(52));
    EXPECT_EQ(status[0].payload, (Bytes{1, 0, 0, 0, 1, 0, 0, 0}));
    service.tick(now += 60'000);
    EXPECT_THAT(answers(*session), testing::IsEmpty()) << "nothing has changed";

    IndexSession* silent = arrive();
    service.tick(now += 29'999);
    EXPECT_FALSE(dropped(*silent));
    service.tick(now += 1);
    EXPECT_TRUE(dropped(*silent));
    EXPECT_FALSE(dropped(*session)) << "who has logged on may be silent";
}

TEST_F(Service, SlowReadersAreDropped) {
    IndexSession* session = online(true);
    service.tick(now);
    ask(*session, publish(1, 250, std::string(1000, 'x')));
    service.packet(*session, request(20), now);
    EXPECT_TRUE(session->hasOutput());
    service.tick(now += 59'999);
    EXPECT_FALSE(dropped(*session));
    service.tick(now += 1);
    EXPECT_TRUE(dropped(*session)) << "nothing was taken for a minute";

    IndexSession* full = online(true);
    while (full->wantsInput(limits.outputPause)) {
        service.packet(*full, search("x"), now);
        while (service.step(now += 1000)) {
        }
    }
    EXPECT_FALSE(dropped(*full));
    EXPECT_LT(full->output.size(), 2 * limits.outputPause + 500'000) << "not read from while it doesn't read";
}

TEST_F(Service, SearchesAreSpacedOutAndNotLost) {
    IndexSession* session = online(true);
    ask(*session, publish(1, 1, "x"));
    u32 answered = 0;
    const u64 start = now;
    for (u32 i = 0; i < limits.searchBurst + 8; ++i) {
        service.packet(*session, search("x"), now);
        EXPECT_FALSE(session->wantsInput(limits.outputPause));
        while (!service.step(now)) {
            ASSERT_LE(service.nextStep(), now + limits.searchPause);
            now = service.nextStep();
        }
        answered += static_cast<u32>(answers(*session).size());
    }
    EXPECT_EQ(answered, limits.searchBurst + 8);
    EXPECT_GE(now - start, 7 * limits.searchPause);
}

TEST_F(Service, OneClientsFilesAreBounded) {
    IndexLimits tight;
    tight.filesPerClient = 10;
    IndexService small(identity(), tight, net, log);
    Bytes refusal;
    IndexSession* session = small.opened({1, 1}, {1, 1}, now, refusal);
    small.packet(*session, logOn(1), now);
    small.doorTested(session->number, true, now);
    session->output.clear();
    small.packet(*session, publish(0, 25, "x"), now);
    while (small.step(now)) {
    }
    EXPECT_EQ(small.index().fileCount(), 10u);
    EXPECT_EQ(session->output.at(5), 56) << "and the client is told";
    std::vector<IndexSession*> all;
    for (u32 i = 1; i < 50; ++i) ASSERT_NE(small.opened({1, 1}, {1, 1}, now, refusal), nullptr);
    EXPECT_EQ(small.opened({1, 1}, {1, 1}, now, refusal), nullptr);
    EXPECT_EQ(refusal.at(5), 56);
}

TEST_F(Service, AnswersDatagrams) {
    IndexSession* low = online(false);
    ask(*low, publish(0, 300, "film"));
    const NetAddress from{0x0100A8C0, 5555};
    const auto send = [&](const Bytes& body) {
        net.datagrams.clear();
        Bytes bytes{packetMarker};
        bytes.insert(bytes.end(), body.begin(), body.end());
        service.datagram(from, bytes, now);
        for (int i = 0; i < 1000 && service.nextStep() != ~u64{0}; ++i) service.step(now += 10);
        std::vector<Answer> result;
        for (const auto& [to, datagram] : net.datagrams) {
            EXPECT_EQ(to, from);
            EXPECT_EQ(datagram.at(0), packetMarker);
            result.push_back({datagram.at(1), Bytes(datagram.begin() + 2, datagram.end())});
        }
        return result;
    };
    auto got = send(request(150, number(0xAABBCCDD)));
    ASSERT_THAT(opcodes(got), testing::ElementsAre(151));
    EXPECT_EQ(got[0].payload, (Bytes{0xDD, 0xCC, 0xBB, 0xAA, 1, 0, 0, 0, 0x2c, 1, 0, 0}));

    for (const u8 opcode : {u8{152}, u8{157}}) {
        Bytes wanted = search("film");
        wanted[0] = opcode;
        const u64 start = now;
        got = send(wanted);
        EXPECT_EQ(got.size(), 200u) << "bounded";
        EXPECT_GE(now - start, 190u) << "and paced";
        EXPECT_EQ(got[0].opcode, 153);
    }
    got = send(request(154, bytesOf(hashOf(3))));
    ASSERT_THAT(opcodes(got), testing::ElementsAre(155));
    EXPECT_EQ(got[0].in().hash(), hashOf(3));
    EXPECT_EQ(got[0].payload.at(16), 1);
    EXPECT_THAT(send(request(154, bytesOf(hashOf(3333)))), testing::IsEmpty());

    const auto callback = [&](u32 own, u32 id) {
        Bytes payload;
        ByteWriter(payload).put32(own).put16(4662).put32(id);
        return request(156, payload);
    };
    EXPECT_THAT(send(callback(0x0200A8C0, low->id)), testing::IsEmpty());
    const auto asked = answers(*low);
    ASSERT_THAT(opcodes(asked), testing::ElementsAre(53));
    EXPECT_EQ(asked[0].in().read32(), from.ip) << "nobody is sent to a third party";
    for (const Bytes& hopeless : {callback(0x0200A8C0, 0x666), callback(5, low->id)}) {
        ASSERT_THAT(opcodes(send(hopeless)), testing::ElementsAre(158));
    }
    for (const Bytes& junk : {Bytes{}, request(150), request(150, {1, 2, 3}), request(152), request(152, {9}),
                              request(1), request(156, {1})}) {
        EXPECT_THAT(send(junk), testing::IsEmpty());
    }
    int answered = 0;
    for (int i = 0; i < 1000; ++i) {
        net.datagrams.clear();
        service.datagram(from, Bytes{packetMarker, 150, 1, 2, 3, 4}, now);
        answered += static_cast<int>(net.datagrams.size());
    }
    EXPECT_LE(answered, 500) << "a flood of one address isn't answered";
}

TEST_F(Service, SurvivesDamage) {
    IndexSession* witness = online(false);
    ask(*witness, publish(0, 2, "kept"));
    for (const Bytes& good : {logOn(4662), publish(10, 2, "file"), search("file"),
                              request(25, bytesOf(hashOf(0))), request(28, number(witness->id))}) {
        sweepDamage(good, [&](std::span<const u8> damaged) {
            IndexSession* session = good[0] == 1 ? arrive() : online(true);
            service.packet(*session, Bytes(damaged.begin(), damaged.end()), now);
            service.doorTested(session->number, true, now);
            while (service.step(now)) {
            }
            service.closed(*session);
            answers(*witness);
        });
    }
    EXPECT_EQ(service.users(), 1u);
    EXPECT_EQ(service.index().fileCount(), 2u);
    service.index().checkInvariants();
}

TEST(FrameReader, CutsPacketsAndSeesBrokenStreams) {
    FrameReader frames;
    Bytes body;
    const Bytes two = [] {
        Bytes bytes = framed({20});
        const Bytes second = framed(search("x"));
        bytes.insert(bytes.end(), second.begin(), second.end());
        return bytes;
    }();
    std::vector<std::size_t> sizes;
    for (const u8 byte : two) {
        frames.feed({&byte, 1});
        EXPECT_FALSE(frames.isBroken(100));
        if (frames.next(body, 100)) sizes.push_back(body.size());
    }
    EXPECT_EQ(sizes, (std::vector<std::size_t>{1, 5}));
    for (const Bytes& broken :
         {Bytes{0xE4}, Bytes{packetMarker, 0, 0, 0, 0}, Bytes{packetMarker, 101, 0, 0, 0}}) {
        FrameReader reader;
        reader.feed(broken);
        EXPECT_TRUE(reader.isBroken(100));
        EXPECT_FALSE(reader.next(body, 100));
    }
}

// --- Over sockets

class Client {
  public:
    explicit Client(u32 port) : socket_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = local(port);
        EXPECT_EQ(::connect(socket_.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    static sockaddr_in local(u32 port) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = loopback;
        address.sin_port = htons(static_cast<u16>(port));
        return address;
    }
    void sendRaw(const Bytes& bytes) {
        [[maybe_unused]] const ssize_t sent = ::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    void send(const Bytes& body) { sendRaw(framed(body)); }
    // The next answer of that opcode, others passed over; opcode 0 when the connection ends or time runs out.
    Answer await(u8 opcode) {
        for (;;) {
            Bytes body;
            while (frames_.next(body, 1u << 30)) {
                if (body[0] == opcode) return {body[0], Bytes(body.begin() + 1, body.end())};
            }
            if (!receive()) return {};
        }
    }
    bool awaitEnd() {
        while (receive()) {
        }
        return ended_;
    }
    u32 logOnAt(u16 doorPort) {
        send(logOn(doorPort));
        return await(64).in().read32();
    }

  private:
    bool receive() {
        pollfd poll{socket_.get(), POLLIN, 0};
        if (::poll(&poll, 1, 60'000) != 1) return false;
        u8 bytes[65536];
        const ssize_t count = recv(socket_.get(), bytes, sizeof bytes, 0);
        ended_ = count <= 0;
        if (!ended_) frames_.feed({bytes, static_cast<std::size_t>(count)});
        return !ended_;
    }
    Descriptor socket_;
    FrameReader frames_;
    bool ended_ = false;
};

// A door that can be called, or a port at which nobody listens.
struct Door {
    explicit Door(bool open) : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address = Client::local(0);
        bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address);
        if (open) ::listen(socket.get(), 10);
        socklen_t length = sizeof address;
        getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
    }
    Descriptor socket;
    u16 port = 0;
};

class ServerStory : public testing::Test {
  protected:
    ServerStory()
        : server(programPath("tarnwick-index"),
                 {"--port", "0", "--bind=127.0.0.1", "--name", "Story", "--max-clients", "40"},
                 directory.path(), Process::Input::pipe) {
        EXPECT_TRUE(server.waitFor("Listening on 127.0.0.1:"));
        EXPECT_TRUE(server.waitFor("\n"));
        const std::string& text = server.output();
        port = static_cast<u32>(std::stoul(text.substr(text.find("127.0.0.1:") + 10)));
    }
    TemporaryDirectory directory;
    Process server;
    u32 port = 0;
};

TEST_F(ServerStory, TwoClientsMeet) {
    const Door open(true);
    const Door shut(false);
    Client high(port);
    Client low(port);
    EXPECT_EQ(high.logOnAt(open.port), loopback);
    const u32 lowId = low.logOnAt(shut.port);
    EXPECT_TRUE(lowId > 0 && lowId < 0xFFFFFF);
    EXPECT_EQ(low.await(65).in().hash(), MD4Hash());

    low.send(publish(0, 5000, "a film"));
    low.send(search("4999"));
    EXPECT_THAT(resultsOf(low.await(51)).names, testing::ElementsAre("a film 4999"))
        << "in the order of asking";
    high.send(search("film"));
    EXPECT_EQ(resultsOf(high.await(51)).names.size(), 200u);
    high.send(request(25, bytesOf(hashOf(7))));
    const Answer sources = high.await(66);
    ASSERT_EQ(sources.payload.size(), 16u + 1 + 6);
    EXPECT_EQ(ByteReader(ByteSpan(sources.payload).subspan(17)).read32(), lowId);
    high.send(request(28, number(lowId)));
    EXPECT_EQ(low.await(53).in().read32(), loopback);

    const Descriptor udp(::socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in address = Client::local(port + 4);
    const Bytes ping = {packetMarker, 150, 1, 0, 0, 0};
    sendto(udp.get(), ping.data(), ping.size(), 0, reinterpret_cast<sockaddr*>(&address), sizeof address);
    pollfd poll{udp.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&poll, 1, 60'000), 1);
    u8 answer[100];
    ASSERT_EQ(recv(udp.get(), answer, sizeof answer, 0), 14);
    EXPECT_EQ(answer[6], 2) << "users";

    server.signal(SIGTERM);
    EXPECT_TRUE(high.awaitEnd());
    EXPECT_EQ(server.wait(), 0);
    EXPECT_THAT(server.output(), testing::HasSubstr("Stopped with 2 clients and 5000 files"));
}

TEST_F(ServerStory, BadClientsCostOnlyThemselves) {
    const Door shut(false);
    Client good(port);
    good.logOnAt(shut.port);
    good.send(publish(0, 10, "kept"));
    for (const Bytes& bytes : {Bytes{0x47, 0x45, 0x54}, Bytes{packetMarker, 0, 0, 0, 0},
                               Bytes{packetMarker, 0xff, 0xff, 0xff, 0xff, 1}, framed(search("kept"))}) {
        Client bad(port);
        bad.sendRaw(bytes);
        EXPECT_TRUE(bad.awaitEnd()) << testing::PrintToString(bytes);
    }
    {
        Client huge(port);
        huge.logOnAt(shut.port);
        huge.sendRaw({packetMarker, 1, 0, 0, 1, 21});  // 16 MiB and one byte
        EXPECT_TRUE(huge.awaitEnd());
        std::vector<std::unique_ptr<Client>> half;
        for (int i = 0; i < 20; ++i) {
            half.push_back(std::make_unique<Client>(port));
            half.back()->logOnAt(shut.port);
            half.back()->sendRaw({packetMarker, 0, 0, 0, 1, 21, 9, 0, 0, 0});  // promised, never sent
        }
        half[0]->send({});  // goes into the middle of a packet
        good.send(search("kept"));
        EXPECT_EQ(resultsOf(good.await(51)).names.size(), 10u);
    }
    std::vector<std::unique_ptr<Client>> crowd;
    for (int i = 0; i < 45; ++i) crowd.push_back(std::make_unique<Client>(port));
    EXPECT_EQ(crowd.back()->await(56).opcode, 56) << "full";
    EXPECT_TRUE(crowd.back()->awaitEnd());
    good.send(search("kept"));
    EXPECT_EQ(resultsOf(good.await(51)).names.size(), 10u);
    server.signal(SIGINT);
    EXPECT_EQ(server.wait(), 0);
}

TEST(IndexOptions, AreReadStrictly) {
    IndexOptions options;
    std::string error;
    EXPECT_TRUE(
        readOptions({"--port=0", "--name", "A B", "--peer-server", "1.2.3.4:5", "--peer-server=5.6.7.8:9",
                     "--max-clients", "7", "--log", "debug", "--bind", "127.0.0.1"},
                    options, error));
    EXPECT_EQ(options.port, 0u);
    EXPECT_EQ(options.identity.name, "A B");
    EXPECT_EQ(options.identity.peerServers, (std::vector<NetAddress>{{0x04030201, 5}, {0x08070605, 9}}));
    EXPECT_EQ(options.identity.maxClients, 7u);
    EXPECT_EQ(options.ip, loopback);
    for (const std::vector<std::string>& bad :
         std::vector<std::vector<std::string>>{{"--port"},
                                               {"--port", "65532"},
                                               {"--port", "1x"},
                                               {"--port", "-1"},
                                               {"-p"},
                                               {"x"},
                                               {"--log", "loud"},
                                               {"--peer-server", "1.2.3.4"},
                                               {"--peer-server", "1.2.3:5"},
                                               {"--peer-server", "1.2.3.4:0"},
                                               {"--max-clients", "0"},
                                               {"--bind", "here"}}) {
        EXPECT_FALSE(readOptions(bad, options, error)) << bad[0];
        EXPECT_FALSE(error.empty());
    }
}

}  // namespace
