// The index server: over real sockets where sockets matter, by a clock of the test's own where time does.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include "index/FrameReader.h"
#include "index/IndexServer.h"
#include "index/options.h"
#include "meta/FileList.h"
#include "tests/support/Process.h"
#include "tests/support/RawClient.h"
#include "tests/support/damage.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bodies = std::vector<std::string>;

Bytes bytes(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string text(ByteSpan bytes) { return {bytes.begin(), bytes.end()}; }

std::string fileId(u32 number) { return le32(number) + std::string(12, '\x9'); }
std::string logOn(u16 port) { return opcode(1, namedRecord(hashOf(77), 0, port, "abcde")); }
std::string publish(u32 first, u32 count, const std::string& name) {
    std::string body = opcode(21, le32(count));
    for (u32 i = first; i < first + count; ++i) {
        body += fileId(i) + le32(0) + le16(0) + le32(1) + "\2" + text16("\1");
        body += text16(name + " " + std::to_string(i));
    }
    return body;
}
std::string search(const std::string& words, u32 number = 22) { return opcode(number, "\1" + text16(words)); }

// A page of results: the names, each with the number of its sources.
struct Page {
    explicit Page(const std::string& body) {
        EXPECT_EQ(body.at(0), 51);
        Bytes copy = bytes(body.substr(1));
        i4_ram_file_class stream(copy.data(), static_cast<u32>(copy.size()), 0);
        FileList list;
        EXPECT_TRUE(list.fromNetwork(stream));
        for (const FileMeta* file : list.snapshot())
            names.push_back(std::string(file->getName()) + " x" +
                            std::to_string(file->getInt(TAG_AVAILABILITY)));
        EXPECT_EQ(stream.bytesLeft(), 1u);
        more = stream.read_8() != 0;
        list.deleteAll();
    }
    Bodies names;
    bool more = false;
};

// The ports in an answer that names sources.
std::set<u32> portsOf(const std::string& body, const std::string& file) {
    EXPECT_EQ(body.substr(0, 17), opcode(66, file));
    const u32 count = static_cast<u8>(body.at(17));
    EXPECT_EQ(body.size(), 18 + 6 * count);
    std::set<u32> ports;
    for (u32 i = 0; i < count; ++i) ports.insert(u16At(body, 18 + 6 * i + 4));
    return ports;
}

// --- The service, with a clock of the test's own

class NullLog : public EventLog {
  public:
    NullLog() : EventLog(Level::debug) {}
    void write(const char*) override {}
};

class Net : public IndexNetwork {
  public:
    void testDoor(const IndexSession& session) override { lastDoor = session.number; }
    void sendDatagram(const NetAddress& to, ByteSpan bytes) override {
        lastTo = to;
        datagrams.push_back(text(bytes));
    }
    ClientNumber lastDoor = 0;
    NetAddress lastTo;
    Bodies datagrams;
};

class Service : public testing::Test {
  protected:
    static IndexIdentity identity() {
        IndexIdentity result;
        result.message = "hello";
        result.peerServers = {{loopbackIp, 4000}, {0x04030201, 5000}};
        result.maxClients = 410;
        return result;
    }
    static IndexLimits tightLimits() {
        IndexLimits result;
        result.filesPerClient = 500;
        return result;
    }

    IndexSession* arrive(u32 ip = 0x05010A0A) {
        Bytes refusal;
        return service.opened({ip, 1234}, {loopbackIp, 4661}, now, refusal);
    }
    IndexSession* online(bool reachable, u16 port = 4662) {
        IndexSession* session = arrive();
        ask(*session, logOn(port));
        service.doorTested(session->number, reachable);
        answers(*session);
        return session;
    }
    void work() {
        while (service.step(now)) continue;
    }
    // The bodies that the service has appended since the last call.
    Bodies answers(IndexSession& session) {
        work();
        FrameReader frames;
        frames.feed(session.output);
        session.output.clear();
        Bodies result;
        for (Bytes body; frames.next(body, 1u << 30);) result.push_back(text(body));
        EXPECT_EQ(frames.size(), 0u);
        return result;
    }
    Bodies ask(IndexSession& session, const std::string& body) {
        service.packet(session, bytes(body), now);
        return answers(session);
    }
    // The datagrams that this one brings, without their marker.
    Bodies send(const std::string& body) {
        net.datagrams.clear();
        service.datagram(from, bytes("\xE3" + body), now);
        for (int i = 0; i < 1000 && service.nextStep() != ~u64{0}; ++i) service.step(now += 10);
        Bodies result;
        for (const std::string& datagram : net.datagrams) {
            EXPECT_EQ(datagram.at(0), '\xE3');
            EXPECT_EQ(net.lastTo, from);
            result.push_back(datagram.substr(1));
        }
        return result;
    }
    static bool dropped(const IndexSession& session) { return session.phase == IndexSession::Phase::closing; }

    const NetAddress from{0x0100A8C0, 5555};
    u64 now = 1'000'000;
    NullLog log;
    Net net;
    const IndexLimits limits = tightLimits();
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
        EXPECT_THAT(ask(*session, logOn(4662)), IsEmpty()) << "no answer before the door was tested";
        EXPECT_EQ(net.lastDoor, session->number);
        service.doorTested(session->number, row.reachable);
        const Bodies got = answers(*session);
        ASSERT_EQ(got.size(), 4u);
        const u32 id = u32At(got[0], 1);
        if (row.id) {
            EXPECT_EQ(id, row.id);
        } else {
            EXPECT_TRUE(id > 0 && id < 0xFFFFFF && lowIds.insert(id).second) << id;
        }
        EXPECT_THAT(got, ElementsAre(opcode(64, le32(id)), opcode(56, text16("hello")),
                                     opcode(52, le32(service.users()) + le32(0)), testing::StartsWith("A")));
        service.doorTested(session->number, !row.reachable);
        EXPECT_EQ(session->id, id) << "tested twice";
    }
}

TEST_F(Service, DropsWhoDoesntKeepToTheProtocol) {
    const std::string log_on = logOn(1);
    for (const std::string& first :
         {search("x"), std::string(), opcode(99), opcode(1), log_on.substr(0, log_on.size() - 1)}) {
        IndexSession* session = arrive();
        ask(*session, first);
        EXPECT_TRUE(dropped(*session)) << testing::PrintToString(first);
        service.closed(*session);
    }
    const std::string list = publish(1, 2, "x");
    for (const std::string& later : {log_on, opcode(25, "ab"), opcode(28), opcode(21),
                                     list.substr(0, list.size() - 3), opcode(21, le32(0x7FFFFFFF))}) {
        IndexSession* session = online(true);
        ask(*session, later);
        EXPECT_TRUE(dropped(*session)) << testing::PrintToString(later);
        service.closed(*session);
    }
    EXPECT_EQ(service.index().fileCount(), 0u) << "what was read of a broken list goes with its client";
    IndexSession* session = online(true);
    for (const std::string& harmless : {opcode(2), opcode(200, "abc"), opcode(20, "xy")})
        ask(*session, harmless);
    EXPECT_FALSE(dropped(*session));
    service.closed(*session);

    IndexSession* witness = online(false);
    ask(*witness, publish(0, 2, "kept"));
    for (const std::string& good : {log_on, publish(10, 2, "file"), search("file"), opcode(25, fileId(0)),
                                    opcode(28, le32(witness->id))}) {
        sweepDamage(bytes(good), [&](std::span<const u8> damaged) {
            IndexSession* next = good == log_on ? arrive() : online(true);
            ask(*next, text(damaged));
            service.doorTested(next->number, true);
            work();
            service.closed(*next);
            answers(*witness);
        });
    }
    EXPECT_EQ(service.users(), 1u);
    EXPECT_EQ(service.index().fileCount(), 2u);
    service.index().checkInvariants();
}

TEST_F(Service, SearchesPageByPage) {
    IndexSession* sharer = online(true);
    IndexSession* asker = online(false);
    ask(*sharer, publish(0, 450, "Some FILM"));
    ask(*sharer, publish(1000, 3, "a song"));
    ask(*asker, publish(1001, 1, "the same song"));
    std::size_t at = 0;
    for (const std::string& request : {search("film"), opcode(33), opcode(33), opcode(33)}) {
        const Page page(ask(*asker, request).at(0));
        EXPECT_EQ(page.names.size(), std::min<std::size_t>(200, 450 - at));
        if (at < 450) {
            EXPECT_EQ(page.names[0], "Some FILM " + std::to_string(at) + " x1");
        }
        at += page.names.size();
        EXPECT_EQ(page.more, at < 450);
    }
    EXPECT_THAT(Page(ask(*asker, search("SONG", 26)).at(0)).names,
                ElementsAre("a song 1000 x1", "a song 1001 x2", "a song 1002 x1"));
    for (const std::string& nothing :
         {opcode(22), opcode(22, "\7"), search("nowhere"), search(std::string(9000, 'x'))}) {
        const Page page(ask(*asker, nothing).at(0));
        EXPECT_THAT(page.names, IsEmpty());
        EXPECT_FALSE(page.more);
    }
    service.closed(*sharer);
    EXPECT_THAT(Page(ask(*asker, search("s")).at(0)).names, ElementsAre("a song 1001 x1"));
}

TEST_F(Service, NamesSourcesOfUse) {
    const std::string wanted = opcode(25, fileId(5));
    const std::string list = publish(5, 1, "wanted");
    IndexSession* asker = online(true, 3333);
    IndexSession* lowAsker = online(false, 4444);
    for (IndexSession* session : {online(true, 1111), online(false, 2222), asker}) ask(*session, list);
    EXPECT_THAT(portsOf(ask(*asker, wanted).at(0), fileId(5)), ElementsAre(1111, 2222)) << "not itself";
    EXPECT_THAT(portsOf(ask(*lowAsker, wanted).at(0), fileId(5)), ElementsAre(1111, 3333))
        << "whom it can call";
    EXPECT_THAT(ask(*asker, opcode(25, fileId(6))), ElementsAre(opcode(66, fileId(6) + le8(0))));
    // Many come in turns.
    for (u16 port = 5001; port <= 5400; ++port) ask(*online(true, port), list);
    std::set<u32> seen;
    for (int i = 0; i < 3; ++i) {
        const std::set<u32> ports = portsOf(ask(*asker, wanted).at(0), fileId(5));
        EXPECT_EQ(ports.size(), 255u);
        seen.insert(ports.begin(), ports.end());
    }
    EXPECT_EQ(seen.size(), 402u);
}

TEST_F(Service, PassesCallbacksOn) {
    IndexSession* low = online(false);
    IndexSession* otherLow = online(false);
    IndexSession* high = online(true, 4711);
    EXPECT_THAT(ask(*high, opcode(28, le32(low->id))), IsEmpty());
    EXPECT_THAT(answers(*low), ElementsAre(opcode(53, le32(high->id) + le16(4711))));
    for (const auto& [session, id] : {std::pair{otherLow, low->id}, {high, 0x777777u}, {high, high->id}}) {
        EXPECT_THAT(ask(*session, opcode(28, le32(id))), ElementsAre(opcode(54, le32(id))));
    }
    EXPECT_THAT(answers(*low), IsEmpty());
    const u32 id = low->id;
    service.closed(*low);
    EXPECT_THAT(ask(*high, opcode(28, le32(id))), ElementsAre(opcode(54, le32(id))));
}

TEST_F(Service, TellsServersAndStatusAndNoticesSilence) {
    IndexSession* session = online(true);
    EXPECT_THAT(ask(*session, opcode(20)), ElementsAre(opcode(50, "\2" + le32(loopbackIp) + le16(4000) +
                                                                      le32(0x04030201) + le16(5000))));
    service.tick(now);
    EXPECT_THAT(answers(*session), ElementsAre(opcode(52, le32(1) + le32(0))));
    ask(*session, publish(1, 1, "x"));
    service.tick(now += 29'000);
    EXPECT_THAT(answers(*session), IsEmpty()) << "at most every 30 seconds";
    service.tick(now += 1000);
    EXPECT_THAT(answers(*session), ElementsAre(opcode(52, le32(1) + le32(1))));
    service.tick(now += 60'000);
    EXPECT_THAT(answers(*session), IsEmpty()) << "nothing has changed";

    IndexSession* silent = arrive();
    service.tick(now += 29'999);
    EXPECT_FALSE(dropped(*silent));
    service.tick(now += 1);
    EXPECT_TRUE(dropped(*silent));
    EXPECT_FALSE(dropped(*session)) << "who has logged on may be silent";
}

TEST_F(Service, WhoAsksTooMuchWaitsAndWhoReadsTooSlowlyIsDropped) {
    IndexSession* session = online(true);
    service.tick(now);
    ask(*session, publish(1, 250, std::string(1000, 'x')));
    service.packet(*session, bytes(opcode(20)), now);
    service.tick(now += 59'999);
    EXPECT_FALSE(dropped(*session));
    service.tick(now += 1);
    EXPECT_TRUE(dropped(*session)) << "nothing was taken for a minute";

    IndexSession* full = online(true);
    while (full->wantsInput(limits.outputPause)) {
        service.packet(*full, bytes(search("x")), now);
        while (service.step(now += 1000)) continue;
    }
    EXPECT_FALSE(dropped(*full));
    EXPECT_LT(full->output.size(), 2 * limits.outputPause + 500'000) << "not read from while it doesn't read";

    IndexSession* busy = online(true);
    std::size_t answered = 0;
    const u64 start = now;
    for (u32 i = 0; i < limits.searchBurst + 8; ++i) {
        service.packet(*busy, bytes(search("none")), now);
        EXPECT_FALSE(busy->wantsInput(limits.outputPause));
        while (!service.step(now)) {
            ASSERT_LE(service.nextStep(), now + limits.searchPause);
            now = service.nextStep();
        }
        answered += answers(*busy).size();
    }
    EXPECT_EQ(answered, limits.searchBurst + 8) << "none is lost";
    EXPECT_GE(now - start, 7 * limits.searchPause);
}

TEST_F(Service, FilesAndClientsAreBounded) {
    const Bodies told = ask(*online(true), publish(0, 510, "x"));
    EXPECT_EQ(service.index().fileCount(), 500u);
    ASSERT_EQ(told.size(), 1u);
    EXPECT_EQ(told[0].at(0), 56) << "and the client is told";
    for (u32 i = 1; i < 410; ++i) ASSERT_NE(arrive(), nullptr);
    Bytes refusal;
    EXPECT_EQ(service.opened({1, 1}, {1, 1}, now, refusal), nullptr);
    EXPECT_EQ(refusal.at(5), 56);
}

TEST_F(Service, AnswersDatagrams) {
    IndexSession* low = online(false);
    ask(*low, publish(0, 300, "film"));
    EXPECT_THAT(send(opcode(150, "abcd")), ElementsAre(opcode(151, "abcd" + le32(1) + le32(300))));
    for (const u32 number : {152u, 157u}) {
        const u64 start = now;
        const Bodies results = send(search("film", number));
        EXPECT_EQ(results.size(), 200u) << "bounded";
        EXPECT_GE(now - start, 190u) << "and paced";
        EXPECT_EQ(results[0].substr(0, 17), opcode(153, fileId(0)));
    }
    EXPECT_THAT(send(opcode(154, fileId(3))),
                ElementsAre(opcode(155, fileId(3) + "\1" + le32(low->id) + le16(4662))));

    const auto callback = [&](u32 own, u32 id) { return opcode(156, le32(own) + le16(4662) + le32(id)); };
    EXPECT_THAT(send(callback(0x0200A8C0, low->id)), IsEmpty());
    EXPECT_THAT(answers(*low), ElementsAre(opcode(53, le32(from.ip) + le16(4662))))
        << "nobody is sent to a third party";
    EXPECT_THAT(send(callback(0x0200A8C0, 0x666)), ElementsAre(opcode(158, le32(0x666))));
    EXPECT_THAT(send(callback(5, low->id)), ElementsAre(opcode(158, le32(low->id))));
    for (const std::string& junk :
         {std::string(), opcode(150), opcode(150, "abc"), opcode(152), opcode(152, "x"), opcode(1),
          opcode(154, fileId(3333)), opcode(156, "x")}) {
        EXPECT_THAT(send(junk), IsEmpty());
    }
    net.datagrams.clear();
    for (int i = 0; i < 1000; ++i) service.datagram(from, bytes("\xE3\x96wxyz"), now);
    EXPECT_LE(net.datagrams.size(), 500u) << "a flood of one address isn't answered";
}

TEST(FrameReader, CutsPacketsAndSeesBrokenStreams) {
    FrameReader frames;
    Bytes body;
    std::string bodies;
    for (const char byte : framed(opcode(20)) + framed(search("x"))) {
        frames.feed(bytes({byte}));
        EXPECT_FALSE(frames.isBroken(100));
        if (frames.next(body, 100)) bodies += text(body) + "|";
    }
    EXPECT_EQ(bodies, opcode(20) + "|" + search("x") + "|");
}

// --- Over sockets

TEST(IndexServer, BadClientsCostOnlyThemselves) {
    const TemporaryDirectory directory;
    Process server(
        programPath("tarnwick-index"),
        {"--port", "0", "--bind=127.0.0.1", "--name", "Story", "--max-clients", "40", "--log", "debug"},
        directory.path(), Process::Input::pipe);
    ASSERT_TRUE(server.waitFor("Listening on 127.0.0.1:"));
    ASSERT_TRUE(server.waitFor("\n"));
    const std::string& output = server.output();
    const auto port = static_cast<u32>(std::stoul(output.substr(output.find("127.0.0.1:") + 10)));
    RawClient low(port);
    low.shutDoor();
    const u32 lowId = low.logOn();
    EXPECT_TRUE(lowId > 0 && lowId < 0xFFFFFF);
    RawClient good(port);
    EXPECT_EQ(good.logOn(), loopbackIp);
    good.say(publish(0, 5000, "a film"));
    const auto isServed = [&] {
        good.say(search("4999"));  // answered in the order of asking
        return Page(opcode(51, good.await(51))).names == Bodies{"a film 4999 x1"};
    };
    for (const std::string& bytes :
         {std::string("GET"), "\xE3" + le32(0), "\xE3" + le32(0xFFFFFFFF) + "x", framed(search("kept"))}) {
        Caller bad(port);
        bad.send(bytes);
        EXPECT_TRUE(bad.isEnded()) << testing::PrintToString(bytes);
    }
    std::string asked;  // and told in the log, which nobody reads: more than a pipe takes
    for (int i = 0; i < 3000; ++i) asked += framed(opcode(200));
    good.send(asked);
    EXPECT_TRUE(isServed());
    {
        Caller eager(port);  // doesn't wait for its ID, nor for its door to be tested
        eager.send(framed(logOn(0)) + framed(publish(9000, 3000, "early")) + framed(search("early 9999")));
        EXPECT_EQ(Page(opcode(51, eager.await(51))).names, Bodies{"early 9999 x1"});
    }
    {
        RawClient huge(port);
        huge.logOn();
        huge.send("\xE3" + le32((16 << 20) + 1) + "\x15");
        while (!huge.packet().empty()) continue;
        std::vector<std::unique_ptr<RawClient>> half;
        for (int i = 0; i < 20; ++i) {
            half.push_back(std::make_unique<RawClient>(port));
            half.back()->logOn();
            half.back()->send("\xE3" + le32(16 << 20) + "\x15" + le32(9));  // promised, never sent
        }
        EXPECT_TRUE(isServed());
    }
    std::vector<std::unique_ptr<Caller>> crowd;
    for (int i = 0; i < 45; ++i) crowd.push_back(std::make_unique<Caller>(port));
    EXPECT_EQ(crowd.back()->packet().at(0), 56) << "full";
    EXPECT_TRUE(crowd.back()->isEnded());
    EXPECT_TRUE(isServed());
    server.signal(SIGTERM);
    EXPECT_EQ(server.wait(), 0);
    EXPECT_THAT(server.output(), testing::HasSubstr("and 5000 files"));
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
    EXPECT_EQ(options.ip, loopbackIp);
    for (const char* bad : {"--port", "--port=65532", "--port=1x", "--port=-1", "-p", "x", "--log=loud",
                            "--peer-server=1.2.3.4", "--peer-server=1.2.3:5", "--peer-server=1.2.3.4:0",
                            "--max-clients=0", "--bind=here"}) {
        EXPECT_FALSE(readOptions({bad}, options, error)) << bad;
        EXPECT_FALSE(error.empty());
    }
}

}  // namespace
