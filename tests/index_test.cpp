// The index server: with real sockets where sockets matter, with the test's own clock where time matters. Its
// index is compared with a plain walk over the same files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "i4min/memory/debug_build.h"
#include "index/FrameReader.h"
#include "index/IndexServer.h"
#include "index/options.h"
#include "meta/FileList.h"
#include "protocol/ServerProtocol.h"
#include "tests/support/Network.h"
#include "tests/support/RawClient.h"
#include "tests/support/records.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bodies = std::vector<std::string>;

Bytes bytes(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string text(ByteSpan bytes) { return {bytes.begin(), bytes.end()}; }

std::string fileId(u32 number) { return le32(number) + std::string(12, '\x9'); }
std::string logOn(u16 port) { return opcode(OP_LOGON, namedRecord(hashOf(77), 0, port, "abcde")); }
std::string publish(u32 first, u32 count, const std::string& name) {
    std::string body = opcode(OP_PUBLISH_FILES, le32(count));
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
        BytesFile stream(bytes(body.substr(1)));
        FileList list;
        EXPECT_TRUE(list.fromNetwork(stream) && stream.bytesLeft() == 1u);
        for (const FileMeta* file : list.snapshot()) {
            const std::string sources = std::to_string(file->getInt(TAG_AVAILABILITY));
            names.push_back(file->getName() + (" x" + sources));
        }
        more = stream.read_8() != 0;
        list.deleteAll();
    }
    Bodies names;
    bool more = false;
};

// The ports in an answer with sources.
std::set<u32> portsOf(const std::string& body, const std::string& file) {
    EXPECT_EQ(body.substr(0, 17), opcode(OP_FOUND_SOURCES, file));
    const u32 count = static_cast<u8>(body.at(17));
    EXPECT_EQ(body.size(), 18 + 6 * count);
    std::set<u32> ports;
    for (u32 i = 0; i < count; ++i) ports.insert(u16At(body, 18 + 6 * i + 4));
    return ports;
}

// --- The service, with the test's own clock

const NetAddress datagramAsker{0x0100A8C0, 5555};

// Records what the service sends and which ports it tests.
class Net : public IndexNetwork {
  public:
    void testDoor(const IndexSession& session) override { lastDoor = session.number; }
    void sendDatagram(const NetAddress& to, ByteSpan bytes) override {
        EXPECT_EQ(to, datagramAsker);
        datagrams.push_back(text(bytes));
    }
    ClientNumber lastDoor = 0;
    Bodies datagrams;
};

class Service : public testing::Test {
  protected:
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
    // The bodies that the service has sent since the last call.
    Bodies answers(IndexSession& session) {
        while (service.step(now)) continue;
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
    // The datagrams sent in answer to this one, without their marker.
    Bodies send(const std::string& body) {
        net.datagrams.clear();
        service.datagram(datagramAsker, bytes("\xE3" + body), now);
        for (int i = 0; i < 1000 && service.nextStep() != ~u64{0}; ++i) service.step(now += 10);
        Bodies result;
        for (const std::string& datagram : net.datagrams) {
            EXPECT_EQ(datagram.at(0), '\xE3');
            result.push_back(datagram.substr(1));
        }
        return result;
    }
    static bool dropped(const IndexSession& session) { return session.phase == IndexSession::Phase::closing; }

    u64 now = 1'000'000;
    EventLog log{EventLog::Level::quiet};
    Net net;
    const IndexLimits limits{.filesPerClient = 500};
    IndexService service{{.description = "",
                          .message = "hello",
                          .peerServers = {{loopbackIp, 4000}, {0x04030201, 5000}},
                          .maxClients = 410},
                         limits,
                         net,
                         log,
                         0};
};

TEST_F(Service, LogsOnWithAHighOrALowId) {
    struct {
        u32 ip;
        bool reachable;
        u32 id;  // 0 for any low ID
    } const table[] = {
        {0x05010A0A, true, 0x05010A0A},
        {0x05010A0A, false, 0},
        {0x00010A0A, true, 0},  // 10.10.1.0 isn't above the low IDs
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
        EXPECT_THAT(
            got,
            ElementsAre(opcode(OP_CLIENT_ID, le32(id)), opcode(OP_SERVER_MESSAGE, text16("hello")),
                        opcode(OP_SERVER_STATUS, le32(service.users()) + le32(0)), testing::StartsWith("A")));
    }
}

TEST_F(Service, DropsWhoDoesntKeepToTheProtocol) {
    const std::string log_on = logOn(1);
    const std::string list = publish(1, 2, "x");
    for (const auto& [known, bad] : {std::pair{false, search("x")},
                                     {false, std::string()},
                                     {false, log_on.substr(0, log_on.size() - 1)},
                                     {true, log_on},
                                     {true, opcode(OP_REQUEST_CALLBACK)},
                                     {true, list.substr(0, list.size() - 3)},
                                     {true, opcode(OP_PUBLISH_FILES, le32(0x7FFFFFFF))}}) {
        IndexSession* session = known ? online(true) : arrive();
        ask(*session, bad);
        EXPECT_TRUE(dropped(*session)) << testing::PrintToString(bad);
        service.closed(*session);
    }
    EXPECT_EQ(service.index().fileCount(), 0u) << "what was read of a broken list goes with its client";
    IndexSession* session = online(true);
    for (const std::string& harmless : {opcode(2), opcode(200, "abc"), opcode(OP_GET_SERVER_LIST, "xy")})
        ask(*session, harmless);
    EXPECT_FALSE(dropped(*session));
}

TEST_F(Service, SearchesPageByPage) {
    IndexSession* sharer = online(true);
    IndexSession* asker = online(false);
    ask(*sharer, publish(0, 450, "Some FILM"));
    ask(*sharer, publish(1000, 3, "a song"));
    ask(*asker, publish(1001, 1, "the same song"));
    std::size_t at = 0;
    for (const std::string& request :
         {search("film"), opcode(OP_MORE_RESULTS), opcode(OP_MORE_RESULTS), opcode(OP_MORE_RESULTS)}) {
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
         {opcode(OP_SEARCH), opcode(OP_SEARCH, "\7"), search("nowhere"), search(std::string(9000, 'x'))}) {
        const Page page(ask(*asker, nothing).at(0));
        EXPECT_THAT(page.names, IsEmpty());
        EXPECT_FALSE(page.more);
    }
    service.closed(*sharer);
    EXPECT_THAT(Page(ask(*asker, search("s")).at(0)).names, ElementsAre("a song 1001 x1"));
}

TEST_F(Service, NamesSourcesOfUse) {
    const std::string wanted = opcode(OP_GET_SOURCES, fileId(5));
    const std::string list = publish(5, 1, "wanted");
    IndexSession* asker = online(true, 3333);
    IndexSession* lowAsker = online(false, 4444);
    for (IndexSession* session : {online(true, 1111), online(false, 2222), asker}) ask(*session, list);
    EXPECT_THAT(portsOf(ask(*asker, wanted).at(0), fileId(5)), ElementsAre(1111, 2222)) << "not itself";
    EXPECT_THAT(portsOf(ask(*lowAsker, wanted).at(0), fileId(5)), ElementsAre(1111, 3333))
        << "whom it can call";
    EXPECT_THAT(ask(*asker, opcode(OP_GET_SOURCES, fileId(6))),
                ElementsAre(opcode(OP_FOUND_SOURCES, fileId(6) + le8(0))));
    // Many are sent in pages.
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
    EXPECT_THAT(ask(*high, opcode(OP_REQUEST_CALLBACK, le32(low->id))), IsEmpty());
    EXPECT_THAT(answers(*low), ElementsAre(opcode(OP_CALLBACK_ASKED, le32(high->id) + le16(4711))));
    for (const auto& [session, id] : {std::pair{otherLow, low->id}, {high, 0x777777u}, {high, high->id}}) {
        EXPECT_THAT(ask(*session, opcode(OP_REQUEST_CALLBACK, le32(id))),
                    ElementsAre(opcode(OP_CALLBACK_FAILED, le32(id))));
    }
    EXPECT_THAT(answers(*low), IsEmpty());
}

TEST_F(Service, TellsServersAndStatusAndNoticesSilence) {
    IndexSession* session = online(true);
    EXPECT_THAT(ask(*session, opcode(OP_GET_SERVER_LIST)),
                ElementsAre(opcode(OP_SERVER_LIST,
                                   "\2" + le32(loopbackIp) + le16(4000) + le32(0x04030201) + le16(5000))));
    service.tick(now);
    EXPECT_THAT(answers(*session), ElementsAre(opcode(OP_SERVER_STATUS, le32(1) + le32(0))));
    ask(*session, publish(1, 1, "x"));
    service.tick(now += 29'000);
    EXPECT_THAT(answers(*session), IsEmpty()) << "at most every 30 seconds";
    service.tick(now += 1000);
    EXPECT_THAT(answers(*session), ElementsAre(opcode(OP_SERVER_STATUS, le32(1) + le32(1))));
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
    service.packet(*session, bytes(opcode(OP_GET_SERVER_LIST)), now);
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
    EXPECT_THAT(send(opcode(OP_PING, "abcd")),
                ElementsAre(opcode(OP_PING_ANSWER, "abcd" + le32(1) + le32(300))));
    for (const u32 number : {152u, 157u}) {
        const u64 start = now;
        const Bodies results = send(search("film", number));
        EXPECT_EQ(results.size(), 200u) << "bounded";
        EXPECT_GE(now - start, 190u) << "and paced";
        EXPECT_EQ(results[0].substr(0, 17), opcode(OP_EXTENDED_RESULT, fileId(0)));
    }
    EXPECT_THAT(
        send(opcode(OP_EXTENDED_GET_SOURCES, fileId(3))),
        ElementsAre(opcode(OP_EXTENDED_FOUND_SOURCES, fileId(3) + "\1" + le32(low->id) + le16(4662))));

    const auto callback = [&](u32 own, u32 id) {
        return opcode(OP_EXTENDED_CALLBACK, le32(own) + le16(4662) + le32(id));
    };
    EXPECT_THAT(send(callback(0x0200A8C0, low->id)), IsEmpty());
    EXPECT_THAT(answers(*low), ElementsAre(opcode(OP_CALLBACK_ASKED, le32(datagramAsker.ip) + le16(4662))))
        << "nobody is sent to a third party";
    EXPECT_THAT(send(callback(0x0200A8C0, 0x666)),
                ElementsAre(opcode(OP_EXTENDED_CALLBACK_FAILED, le32(0x666))));
    EXPECT_THAT(send(callback(5, low->id)), ElementsAre(opcode(OP_EXTENDED_CALLBACK_FAILED, le32(low->id))));
    for (const std::string& junk :
         {std::string(), opcode(OP_PING), opcode(OP_PING, "abc"), opcode(OP_EXTENDED_SEARCH),
          opcode(OP_EXTENDED_SEARCH, "x"), opcode(OP_LOGON), opcode(OP_EXTENDED_GET_SOURCES, fileId(3333)),
          opcode(OP_EXTENDED_CALLBACK, "x")}) {
        EXPECT_THAT(send(junk), IsEmpty());
    }
    net.datagrams.clear();
    for (int i = 0; i < 1000; ++i) service.datagram(datagramAsker, bytes("\xE3\x96wxyz"), now);
    EXPECT_LE(net.datagrams.size(), 500u) << "a flood of one address isn't answered";
}

// --- Over sockets

TEST(IndexServer, BadClientsCostOnlyThemselves) {
    IndexServerProcess index({"--name", "Story", "--max-clients", "40", "--log", "debug"});
    const u32 port = index.portNumber();
    RawClient low(port);
    low.shutDoor();
    const u32 lowId = low.logOn();
    EXPECT_TRUE(lowId > 0 && lowId < 0xFFFFFF);
    RawClient good(port);
    EXPECT_EQ(good.logOn(), loopbackIp);
    good.say(publish(0, 5000, "a film"));
    const auto isServed = [&] {
        good.say(search("4999"));  // answered in the order of the requests
        return Page(opcode(OP_SEARCH_RESULTS, good.await(OP_SEARCH_RESULTS))).names ==
               Bodies{"a film 4999 x1"};
    };
    for (const std::string& bytes :
         {std::string("GET"), "\xE3" + le32(0), "\xE3" + le32(0xFFFFFFFF) + "x", framed(search("kept"))}) {
        Caller bad(port);
        bad.send(bytes);
        EXPECT_TRUE(bad.isEnded()) << testing::PrintToString(bytes);
    }
    std::string asked;  // each is also logged: more than a pipe holds, and nobody reads it
    for (int i = 0; i < 3000; ++i) asked += framed(opcode(200));
    good.send(asked);
    EXPECT_TRUE(isServed());
    {
        Caller eager(port);  // waits neither for its ID nor for the test of its port
        eager.send(framed(logOn(0)) + framed(publish(9000, 3000, "early")) + framed(search("early 9999")));
        EXPECT_EQ(Page(opcode(OP_SEARCH_RESULTS, eager.await(OP_SEARCH_RESULTS))).names,
                  Bodies{"early 9999 x1"});
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
            half.back()->send("\xE3" + le32(16 << 20) + "\x15" + le32(9));  // announced but never sent
        }
        EXPECT_TRUE(isServed());
    }
    std::vector<std::unique_ptr<Caller>> crowd;
    for (int i = 0; i < 45; ++i) crowd.push_back(std::make_unique<Caller>(port));
    EXPECT_EQ(crowd.back()->packet().at(0), 56) << "full";
    EXPECT_TRUE(crowd.back()->isEnded());
    EXPECT_TRUE(isServed());
    EXPECT_EQ(index.stop(), 0);
    EXPECT_TRUE(index.said("and 5000 files"));
}

TEST(IndexOptions, AreReadStrictly) {
    IndexOptions options;
    std::string error;
    EXPECT_TRUE(readOptions({"--name", "A B", "--peer-server", "1.2.3.4:5", "--peer-server=5.6.7.8:9"},
                            options, error));
    EXPECT_EQ(options.identity.name, "A B");
    EXPECT_EQ(options.identity.peerServers, (std::vector<NetAddress>{{0x04030201, 5}, {0x08070605, 9}}));
    for (const char* bad : {"--port", "--port=65532", "--port=1x", "-p", "x", "--log=loud", "--max-clients=0",
                            "--peer-server=1.2.3.4", "--peer-server=1.2.3.4:0", "--bind=here"}) {
        EXPECT_FALSE(readOptions({bad}, options, error)) << bad;
    }
}

// --- The index of files

MD4Hash hashOfFile(u32 number) {
    MD4Hash hash;
    hash.bytes[15] = 1;
    std::memcpy(hash.bytes.data(), &number, sizeof number);
    return hash;
}
u32 numberOf(const MD4Hash& hash) { return u32At(bytesOf(hash), 0); }

FileRecord recordOf(const Bytes& tags) {
    ByteReader in(tags);
    FileRecord record;
    EXPECT_TRUE(record.read(in));
    return record;
}
FileRecord recordOf(const Meta& meta) {
    return recordOf(written([&](i4_file& stream) { EXPECT_TRUE(meta.Meta::toNetwork(stream)); }));
}

// Clients and their files, and an index that is given the same.
class World {
  public:
    void publish(ClientNumber client, u32 file, std::unique_ptr<FileMeta> meta) {
        const auto number = index.publish(client, hashOfFile(file), recordOf(*meta));
        EXPECT_EQ(number.has_value(), numbers[file].count(client) == 0);
        if (number) numbers[file][client] = *number;
        // The only client of a file may rename it.
        if (numbers[file].size() == 1) records[file] = std::move(meta);
        count(file);
    }
    void withdraw(ClientNumber client, u32 file) {
        const auto known = numbers[file].find(client);
        if (known == numbers[file].end()) return;
        index.withdraw(client, known->second);
        numbers[file].erase(known);
        count(file);
    }
    void count(u32 file) {
        if (numbers[file].empty()) {
            records.erase(file);
        } else {
            records[file]->setInt(TAG_AVAILABILITY, static_cast<u32>(numbers[file].size()));
        }
    }
    // Requests a few results at a time, with little work at a time, and compares them with a walk.
    void compare(const SearchNode& tree, u32 page, u64 slice) {
        SearchRun run(tree.clone(), 3);
        std::set<u32> found;
        while (!run.atEnd()) {
            u64 work = slice;
            u32 taken = 0;
            index.search(run, work, [&](const FileRecord&, const MD4Hash& hash, u32) {
                if (taken++ == page) return false;
                EXPECT_TRUE(found.insert(numberOf(hash)).second) << "met twice";
                return true;
            });
        }
        std::set<u32> expected;
        for (const auto& [file, meta] : records) {
            if (tree.matches(*meta)) expected.insert(file);
        }
        char text[500] = "";
        tree.printable(text, sizeof text);
        EXPECT_EQ(found, expected) << text;
    }

    FileIndex index;
    std::map<u32, std::map<ClientNumber, FileNumber>> numbers;  // by file
    std::map<u32, std::unique_ptr<FileMeta>> records;
};

// Random files, texts and search trees from a seed.
class Dice {
  public:
    u32 below(u32 n) { return std::uniform_int_distribution<u32>(0, n - 1)(engine_); }
    // Few letters, so that texts share pieces; some capitals, blanks and non-ASCII bytes.
    std::string text(u32 longest) {
        static const std::string letters = "aabbccdeABC  \xc3\xa9.";
        std::string result(below(longest + 1), ' ');
        for (char& c : result) c = letters[below(static_cast<u32>(letters.size()))];
        return result;
    }
    std::unique_ptr<FileMeta> meta() {
        auto meta = std::make_unique<FileMeta>();
        meta->setName((text(12) + "x").c_str());
        meta->setInt(TAG_SIZE, below(2000) - 3);
        // More names than the index keeps apart.
        if (below(3) == 0) meta->setInt(("number" + std::to_string(below(40))).c_str(), below(5));
        if (below(2)) meta->setText(TAG_TYPE, below(2) ? "Audio" : "Video");
        if (below(3) == 0) meta->setInt(TAG_AVAILABILITY, below(5));  // which clients can't set
        if (below(3) == 0) meta->setText("Artist", text(4).c_str());
        return meta;
    }
    std::unique_ptr<SearchNode> tree(u32 depth) {
        if (depth > 0 && below(2))
            return std::make_unique<SN_Compound>(below(5), tree(depth - 1), tree(depth - 1));
        static const char* const names[] = {"\x01", "\x03", "Artist"};
        static const char* const numbers[] = {"\x02", "\x15", "number1", "number39"};
        const u32 kind = below(6);
        if (kind == 0) return std::make_unique<SN_StrTagCompare>("\x03", "audio");
        if (kind == 1) return std::make_unique<SN_StrTagCompare>(names[below(3)], text(3).c_str());
        if (kind == 2) {
            return std::make_unique<SN_IntTagCompare>(numbers[below(4)], static_cast<i32>(below(4)),
                                                      below(6));
        }
        if (kind == 3) return std::make_unique<SN_MatchAll>();
        return std::make_unique<SN_FindStr>(text(5).c_str());
    }

  private:
    std::mt19937 engine_{20260115};
};

TEST(FileIndex, FindsWhatAWalkFinds) {
    World world;
    Dice dice;
    const auto compare = [&](int trees) {
        world.index.checkInvariants();
        for (int i = 0; i < trees; ++i) {
            world.compare(*dice.tree(3), 1 + dice.below(1000), 10'000 + dice.below(500'000));
        }
        for (const char* text : {"a", "abc", "AB", "\xa9", "cx", "abcabcab", ""}) {
            world.compare(SN_FindStr(text), 5000, 1'000'000);
        }
        world.compare(SN_IntTagCompare("\x15", 3, COMPARE_AT_LEAST), 5000, 1'000'000);
    };
    for (u32 i = 0; i < 9'000; ++i) world.publish(1 + dice.below(3), i, dice.meta());
    for (u32 i = 0; i < 1'500; ++i) world.publish(1 + dice.below(3), i % 500, dice.meta());
    compare(10);
    // Most files are removed during a search: segments dissolve, and the rest must still be found.
    SearchRun run(std::make_unique<SN_FindStr>("x"), 1);
    std::set<u32> found;
    for (u32 i = 0; i < 9'000 || !run.atEnd(); ++i) {
        u64 work = 300;
        world.index.search(run, work, [&](const FileRecord&, const MD4Hash& hash, u32) {
            return found.insert(numberOf(hash)), true;
        });
        for (ClientNumber client = 1; client <= 3 && i % 4 != 0; ++client) world.withdraw(client, i);
    }
    for (const auto& [file, meta] : world.records) EXPECT_EQ(found.count(file), 1u) << file;
    compare(10);
    for (u32 i = 20'000; i < 24'500; ++i) world.publish(7, i, dice.meta());
    compare(10);
    for (u32 i = 0; i < 24'500; ++i) {
        for (const ClientNumber client : {1u, 2u, 3u, 7u}) world.withdraw(client, i);
    }
    EXPECT_EQ(world.index.fileCount(), 0u);
    for (u32 i = 0; i < 9'000; ++i) {
        world.publish(1, i, dice.meta());
        world.withdraw(1, i);
    }
    compare(3);
    EXPECT_LT(world.index.wordIndexBytes(), 100'000u) << "what has gone takes no room";
}

TEST(FileIndex, IsBounded) {
    FileIndex index(FileIndex::Limits{2, 1u << 20}, 0);
    const FileMeta file;
    const auto number = index.publish(1, hashOfFile(1), recordOf(file));
    EXPECT_FALSE(index.publish(1, hashOfFile(1), recordOf(file))) << "again";
    EXPECT_TRUE(index.publish(1, hashOfFile(2), recordOf(file)));
    EXPECT_FALSE(index.publish(1, hashOfFile(3), recordOf(file)));
    EXPECT_TRUE(index.publish(2, hashOfFile(2), recordOf(file)));
    index.withdraw(1, *number);
    EXPECT_EQ(index.sources(hashOfFile(1)), nullptr);
    EXPECT_TRUE(index.publish(1, hashOfFile(3), recordOf(file)));
}

TEST(FileIndexDeathTest, AbortsWhenAFileIsWithdrawnTwice) {
    if (!debugBuild) GTEST_SKIP();
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    FileIndex index;
    FileMeta file;
    file.setName("file");
    const auto number = index.publish(1, hashOfFile(1), recordOf(file));
    index.withdraw(1, *number);
    EXPECT_EXIT(index.withdraw(1, *number), testing::KilledBySignal(SIGABRT), "");
}

TEST(FileIndex, RecordsKeepWhatFitsAndCanBeFound) {
    FileMeta meta;
    meta.setName("name");
    meta.setText("long", std::string(3000, 'x').c_str());
    meta.setInt("number", 5);
    BoolArray bits(8);
    meta.setTag("bits", bits);
    MetaBlob blob{1, 2, 3};
    meta.setTag("blob", blob);
    const FileRecord record = recordOf(meta);
    EXPECT_TRUE(record.hasName());
    std::string names;
    FileRecordTags tags(record, 3);
    for (TagView tag; tags.next(tag);) names += std::string(tag.name) + ",";
    EXPECT_EQ(names, "\x01,number,bits,blob,\x15,");

    // A zero byte in a text, a tag without a name, a wrong count.
    const FileRecord odd =
        recordOf(Bytes{3, 0, 0, 0, 2, 1, 0, 1, 2, 0, 'a', 0, 3, 1, 0, 'n', 1, 0, 0, 0, 5, 1, 0, 'b', 1});
    EXPECT_FALSE(odd.hasName());
    EXPECT_EQ(odd.size(), 5u);
    EXPECT_EQ(recordOf(Bytes{0, 0, 0, 0x80}).size(), 0u);
}

}  // namespace
