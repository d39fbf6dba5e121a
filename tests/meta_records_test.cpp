// Records and lists of records: their bytes, their files, their rules and their indexes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "meta/FileList.h"
#include "meta/ServerList.h"
#include "meta/UserList.h"
#include "meta/address.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/bytes.h"
#include "tests/support/damage.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

// A list that owns its records, as a test wants it.
template <class List>
struct Owned : List {
    ~Owned() override { List::deleteAll(); }
};

MD4Hash hashOf(u8 first, u8 last = 0) {
    MD4Hash hash;
    hash.bytes[0] = first;
    hash.bytes[15] = last;
    return hash;
}

FileMeta* newFile(const char* name, u32 size = 0, u32 date = 0, MD4Hash hash = {}) {
    auto* file = new FileMeta;
    file->setName(name);
    file->setInt(TAG_SIZE, size);
    file->date = date;
    file->hash = hash;
    return file;
}

ServerMeta* newServer(const char* ip, u32 port) {
    auto* server = new ServerMeta;
    server->setAddress(ip, port);
    return server;
}

ServerMeta* find(ServerList& list, const char* ip, u32 port) {
    const i4_guard guard(list);
    return list.find(stringToIp(ip), port);
}

template <class List>
Bytes diskForm(List& list) {
    return written([&](i4_file& file) { EXPECT_TRUE(list.toDisk(file)); });
}

template <class Record>
Bytes networkForm(const Record& record) {
    const Bytes bytes = written([&](i4_file& file) { EXPECT_TRUE(record.toNetwork(file)); });
    EXPECT_EQ(bytes.size(), record.byteSize());
    return bytes;
}

std::vector<std::string> namesOf(const Meta& record) {
    std::vector<std::string> names;
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = record.getTags().next(c);) {
        names.emplace_back(tag->displayName() ? tag->displayName() : "(null)");
    }
    return names;
}

class MetaFiles : public testing::Test {
  protected:
    MetaFiles() { std::filesystem::create_directories(folder_); }
    ~MetaFiles() override { std::filesystem::remove_all(folder_); }
    std::string path(const char* name) const { return folder_ / name; }
    void put(const std::string& file, const Bytes& bytes) const {
        std::ofstream(file, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    Bytes get(const std::string& file) const {
        std::ifstream in(file, std::ios::binary);
        return Bytes((std::istreambuf_iterator<char>(in)), {});
    }
    CapturedLog log;

  private:
    const std::filesystem::path folder_ =
        std::filesystem::temp_directory_path() / ("tarnwick_meta_" + std::to_string(::getpid()));
};

TEST(Meta, TagsKeepTheirOrderAndTheFirstOfANameCounts) {
    Meta record;
    EXPECT_EQ(networkForm(record), (Bytes{0, 0, 0, 0}));
    record.setText(TAG_NAME, "one");
    record.setInt(TAG_SIZE, 5);
    record.setInt("users", 7);
    record.setText(TAG_NAME, "two");
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "Size", "users"));
    EXPECT_STREQ(record.getText(TAG_NAME), "two");
    EXPECT_EQ(record.getInt("users"), 7u);
    EXPECT_FALSE(record.addTag("users", META_TAG_INT));
    EXPECT_TRUE(record.addTag("files", META_TAG_INT));
    EXPECT_EQ(record.findTag(TAG_SIZE)->id(), TAG_SIZE);

    // From the network a record adds to what is there, from disk it replaces it.
    const Bytes more{2, 0, 0, 0, 2, 1, 0, 1, 3, 0, 'n', 'e', 'w', 3, 1, 0, 'n', 9, 0, 0, 0};
    BytesFile network(more);
    EXPECT_TRUE(record.fromNetwork(network));
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "Size", "users", "files", "Name", "(null)"));
    EXPECT_STREQ(record.getText(TAG_NAME), "two");
    EXPECT_TRUE(record.removeTag(TAG_NAME));
    EXPECT_STREQ(record.getText(TAG_NAME), "new");
    EXPECT_EQ(record.findTag("n"), nullptr) << "a tag without a name is passed over";
    BytesFile disk(more);
    EXPECT_TRUE(record.fromDisk(disk));
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "(null)"));

    Meta copy;
    copy.setInt("old", 1);
    copy.copyFrom(&record);
    copy.copyFrom(nullptr);
    EXPECT_EQ(networkForm(copy), more);
}

TEST(Meta, WhatIsAbsentReadsAsNothing) {
    const Meta record;
    char text[8] = "text";
    EXPECT_EQ(record.getInt(TAG_SIZE), 0u);
    EXPECT_EQ(record.getFloat("f"), 0.0f);
    EXPECT_EQ(record.getValue(TAG_SIZE), nullptr);
    EXPECT_STREQ(record.printable("x", text, sizeof text), "");
}

// A stranger's record may have any type under any name: nothing reads past the value that is there.
TEST(Meta, AnotherTypeThanTheNamePromisesIsNoTrap) {
    Meta record;
    const u32 number = 0x41414141;
    const f32 half = 0.5f;
    record.setTag(tagTable[TAG_NAME].wireName, &number, META_TAG_INT);
    record.setTag(tagTable[TAG_SIZE].wireName, "x", META_TAG_STRING);
    record.setTag("flag", nullptr, META_TAG_BOOL);
    record.setTag("half", &half, META_TAG_FLOAT);
    EXPECT_EQ(record.getText(TAG_NAME), nullptr);
    EXPECT_EQ(record.getInt(TAG_NAME), number);
    EXPECT_EQ(record.getInt(TAG_SIZE), 0u);
    EXPECT_EQ(record.getInt("flag"), 0u);
    EXPECT_EQ(record.getFloat("half"), 0.5f);
    EXPECT_EQ(record.getInt("half"), 0x3F000000u);
    EXPECT_EQ(record.getValue(TAG_NAME, META_TAG_STRING), nullptr);
    EXPECT_FALSE(record.setTagValue(tagTable[TAG_SIZE].wireName, &number, META_TAG_INT));
    // Set, each takes the type of its name and keeps its place.
    record.setText(TAG_NAME, "name");
    record.setInt(TAG_SIZE, 3);
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "Size", "flag", "half"));
    EXPECT_STREQ(record.getText(TAG_NAME), "name");
    EXPECT_EQ(record.getInt(TAG_SIZE), 3u);
}

TEST(Meta, ADamagedRecordKeepsWhatWasRead) {
    CapturedLog log;
    log.verbose = 1;
    Meta record;
    const Bytes second{2, 0, 0, 0, 3, 1, 0, 2, 1, 0, 0, 0, 3, 1, 0};
    BytesFile disk(second);
    EXPECT_FALSE(record.fromDisk(disk));
    EXPECT_EQ(log.take(), "ERROR: Meta::fromDisk()\n");
    EXPECT_THAT(namesOf(record), ElementsAre("Size"));
    BytesFile network(second);
    EXPECT_FALSE(record.fromNetwork(network));
    EXPECT_EQ(log.take(), "ERROR: Meta::fromNetwork()\n");
    // No count: no message. A count with its top bit set: nothing is read.
    BytesFile count(Bytes{1, 0, 0});
    EXPECT_FALSE(record.fromDisk(count));
    BytesFile negative(Bytes{0xFF, 0xFF, 0xFF, 0xFF, 1});
    EXPECT_TRUE(record.fromDisk(negative));
    EXPECT_EQ(log.take(), "");
}

TEST(MetaList, PrintsItsRecords) {
    CapturedLog log;
    Owned<FileList> list;
    list.add(newFile("a", 1));
    list.add(newFile("b", 0xFFFFFFFF));
    list.print();
    EXPECT_EQ(log.take(), "\nMeta (0)\nName: a\nSize: 1\n\nMeta (1)\nName: b\nSize: -1\n");
}

TEST(MetaList, RecordsComeAndGoByPointer) {
    FileList list;
    FileList other;
    FileMeta a, b, c;
    for (FileMeta* file : {&a, &b, &a, &c}) list.add(file);
    list.add(nullptr);
    EXPECT_EQ(list.count(), 4u);
    EXPECT_EQ(list.get(2), &a);
    EXPECT_EQ(list.get(4), nullptr);
    other.addAll(list);
    EXPECT_TRUE(list.remove(&a));
    EXPECT_THAT(list.snapshot(), ElementsAre(&b, &a, &c));
    EXPECT_FALSE(list.remove(nullptr));
    // Each occurrence in the other takes one away.
    FileList gone;
    gone.add(&a);
    gone.add(&c);
    other.removeAll(&gone);
    EXPECT_THAT(other.snapshot(), ElementsAre(&b, &a));
    EXPECT_EQ(other.count(), 2u);
    other.removeAll(&other);
    EXPECT_THAT(other.snapshot(), IsEmpty());
    other.add(&c);
    EXPECT_THAT(other.snapshot(), ElementsAre(&c));

    a.date = 1;
    b.date = 3;
    c.date = 2;
    list.sort([](const Meta* l, const Meta* r) {
        return static_cast<const FileMeta*>(l)->date >= static_cast<const FileMeta*>(r)->date;
    });
    EXPECT_THAT(list.snapshot(), ElementsAre(&b, &c, &a));
    const i4_guard guard(list);
    for (MetaList::Cursor before, at; FileMeta *file = list.next(at);) {
        if (file == &c) {
            at = before = list.removeNext(before);
        } else {
            before = at;
        }
    }
    EXPECT_EQ(list.countUnsafe(), 2u);
}

TEST(MetaList, SearchTakesTheFirstThatMatch) {
    struct Large final : MetaMatcher {
        bool matches(const Meta& record) const override { return record.getInt(TAG_SIZE) > 10; }
    };
    Owned<FileList> list;
    for (u32 size : {20u, 5u, 30u, 40u}) list.add(newFile("x", size));
    FileList two, all;
    list.search(Large(), two, 2);
    EXPECT_THAT(two.snapshot(), ElementsAre(list.get(0), list.get(2)));
    list.search(Large(), all, 0);
    EXPECT_EQ(all.count(), 3u);
}

TEST(MetaList, CopiesAreRecordsOfItsOwn) {
    Owned<FileList> list, copy;
    list.add(newFile("a", 1, 7, hashOf(1)));
    list.get(0)->partHashes.push_back(hashOf(5));
    list.get(0)->path = "/x/a";
    copy.copyFrom(&list);
    copy.copyFrom(nullptr);
    ASSERT_EQ(copy.count(), 1u);
    const FileMeta* file = copy.find(hashOf(1));
    ASSERT_TRUE(file);
    EXPECT_NE(file, list.get(0));
    EXPECT_STREQ(file->getName(), "a");
    EXPECT_STREQ(file->path.c_str(), "/x/a");
    EXPECT_THAT(file->partHashes, ElementsAre(hashOf(5)));
    EXPECT_EQ(file->date, 0u) << "the date stays as it was";
    copy.get(0)->copyFrom(list.get(0));
    EXPECT_THAT(copy.get(0)->partHashes, ElementsAre(hashOf(5), hashOf(5)));
    const auto tagsAlone = FileMeta::withTagsOf(*list.get(0));
    EXPECT_STREQ(tagsAlone->getName(), "a");
    EXPECT_TRUE(tagsAlone->hash.isZero());
}

TEST(MetaList, NetworkFormsOfAllThreeRecordsStartAlike) {
    FileMeta file;
    file.hash = hashOf(1, 2);
    file.partHashes.push_back(hashOf(9));
    file.date = 8;
    file.setInt(TAG_SIZE, 1000);
    const Bytes record{1, 0, 0, 0, 3, 1, 0, 2, 0xE8, 3, 0, 0};
    Bytes bytes{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0};
    bytes.insert(bytes.end(), record.begin(), record.end());
    EXPECT_EQ(networkForm(file), bytes);

    UserMeta user;
    user.hash = hashOf(1, 2);
    user.id = stringToIp("1.2.3.4");
    user.port = 4662;
    user.serverIp = user.serverPort = 77;
    user.setInt(TAG_SIZE, 1000);
    const Bytes address{1, 2, 3, 4, 0x36, 0x12};
    std::copy(address.begin(), address.end(), bytes.begin() + 16);
    EXPECT_EQ(networkForm(user), bytes);
    UserMeta again;
    BytesFile in(bytes);
    EXPECT_TRUE(again.fromNetwork(in));
    EXPECT_EQ(networkForm(again), bytes);
    EXPECT_EQ(again.serverIp, 0u);

    ServerMeta server;
    server.setAddress("1.2.3.4", 4662);
    server.setInt(TAG_SIZE, 1000);
    bytes[0] = bytes[15] = 0;
    EXPECT_EQ(networkForm(server), bytes);
    bytes[3] = 99;  // readers drop it
    ServerMeta read;
    BytesFile unused(bytes);
    EXPECT_TRUE(read.fromNetwork(unused));
    EXPECT_TRUE(read.sameServer(&server));
    EXPECT_THAT(namesOf(read), ElementsAre("Size", "ping", "users", "files"));

    Owned<UserList> users;
    EXPECT_EQ(networkForm(users), (Bytes{0, 0, 0, 0}));
    EXPECT_EQ(diskForm(users), (Bytes{14, 0, 0, 0, 0}));
}

TEST(FileMeta, DiskFormKeepsWhatMakesAFileKnown) {
    Owned<FileList> list;
    FileMeta* file = newFile("a", 3, 0x01020304, hashOf(7));
    file->partHashes = {hashOf(8), hashOf(9)};
    file->path = "/not/saved";
    list.add(file);
    const Bytes bytes = diskForm(list);
    Bytes expected{14, 1, 0, 0, 0, 4, 3, 2, 1, 7};
    expected.resize(expected.size() + 15);
    expected.insert(expected.end(), {2, 0, 8});
    expected.resize(expected.size() + 15);
    expected.push_back(9);
    expected.resize(expected.size() + 15);
    expected.insert(expected.end(), {2, 0, 0, 0, 2, 1, 0, 1, 1, 0, 'a', 3, 1, 0, 2, 3, 0, 0, 0});
    EXPECT_EQ(bytes, expected);
    EXPECT_EQ(file->partHashesSize(), 34u);

    Owned<FileList> again;
    BytesFile in(bytes);
    EXPECT_TRUE(again.fromDisk(in));
    EXPECT_EQ(diskForm(again), bytes);
    EXPECT_TRUE(again.get(0)->matches(3, 0x01020304, "a"));
    EXPECT_FALSE(again.get(0)->matches(3, 0x01020304, "A"));
    EXPECT_FALSE(again.get(0)->matches(3, 0x01020304, nullptr));
    again.get(0)->removeTag(TAG_NAME);
    EXPECT_FALSE(again.get(0)->matches(3, 0x01020304, ""));
}

TEST(ServerMeta, RatingFollowsPreferenceAndPing) {
    ServerMeta server;
    EXPECT_EQ(server.rating, 0u);
    server.history = 4;
    server.setPing(0);
    EXPECT_EQ(server.history, 4u);
    EXPECT_EQ(server.rating, 0u);
    struct Case {
        u32 pref;
        u32 rating;
    };
    for (const auto& [pref, rating] : {Case{0, 2099950}, {1, 3099950}, {2, 1099950}, {3, 9099950}}) {
        server.setPref(pref);
        server.setPing(50);
        EXPECT_EQ(server.rating, rating) << pref;
    }
    EXPECT_EQ(server.history, 0u);
    EXPECT_EQ(server.getInt(TAG_PING), 50u);
    server.setPing(1);
    EXPECT_EQ(server.rating, 0u);
    server.setPing(-5);
    EXPECT_EQ(server.rating, 0u);
    server.setPref(0);
    server.setPing(100001);
    EXPECT_EQ(server.rating, 1999999u) << "nothing caps a ping";

    i4_string name;
    server.setAddress("1.2.3.4", 4661);
    EXPECT_STREQ(server.getName(name), "1.2.3.4");
    server.setName("Home");
    EXPECT_STREQ(server.getName(name), "Home");
    EXPECT_FALSE(server.setAddress("nowhere", 4661));
    ServerMeta other;
    EXPECT_FALSE(server.sameServer(&other)) << "no address is like no other";
    EXPECT_FALSE(server.sameServer(nullptr));
}

TEST(ServerMeta, ReadingForgetsWhatAnEarlierRunMeasured) {
    ServerMeta server;
    server.setAddress("1.2.3.4", 4661);
    server.setPing(50);
    server.setCounts(10, 20);
    server.setPref(1);
    server.history = 6;
    const Bytes bytes = written([&](i4_file& file) { EXPECT_TRUE(server.toDisk(file)); });
    ServerMeta again;
    BytesFile in(bytes);
    EXPECT_TRUE(again.fromDisk(in));
    EXPECT_EQ(again.pref, 1u);
    EXPECT_EQ(again.history, 6u) << "the field was saved, not the older tag";
    EXPECT_EQ(again.ping, 1);
    EXPECT_EQ(again.rating, 0u);
    EXPECT_EQ(again.getInt(TAG_PING), 0u);
    EXPECT_EQ(again.getUsers() + again.getFiles(), 0u);
}

TEST(UserMeta, WhoIsTheSameUser) {
    const u32 high = 0x01000000;
    const u32 low = 0x00FFFFFF;
    const auto user = [](u32 id, u32 server, MD4Hash hash) {
        auto made = std::make_unique<UserMeta>();
        made->id = id;
        made->serverIp = server;
        made->hash = hash;
        return made;
    };
    const MD4Hash none, a = hashOf(1), b = hashOf(2);
    const auto same = [&](const auto& l, const auto& r) { return l->sameUser(r.get()); };
    EXPECT_TRUE(same(user(high, 1, a), user(high, 2, b)));
    EXPECT_TRUE(same(user(low, 1, a), user(low, 1, b)));
    EXPECT_TRUE(same(user(low, 1, a), user(low, 2, a)));
    EXPECT_FALSE(same(user(low, 1, a), user(low, 2, b)));
    EXPECT_FALSE(same(user(low, 1, none), user(low, 2, none)));
    EXPECT_TRUE(same(user(5, 1, a), user(high, 2, a)));
    EXPECT_FALSE(user(high, 1, a)->sameUser(nullptr));
}

TEST(UserMeta, AnAddressThatWillNotLastIsNotSaved) {
    UserMeta user;
    user.port = 4662;
    user.id = 0x01000000;
    EXPECT_THAT(written([&](i4_file& file) { user.toDisk(file); }), testing::Contains(0x12).Times(1));
    user.id = 0x00FFFFFF;
    EXPECT_EQ(written([&](i4_file& file) { user.toDisk(file); }), Bytes(26, 0));
}

TEST(Address, TextAndNumber) {
    i4_string text;
    ipToString(0x04030201, text);
    EXPECT_STREQ(text.c_str(), "1.2.3.4");
    EXPECT_STREQ(ipToString(0xFFFFFFFF).c_str(), "255.255.255.255");
    EXPECT_EQ(stringToIp("1.2.3.4"), 0x04030201u);
    EXPECT_EQ(stringToIp("255.0.0.1\n"), 0x010000FFu);
    for (const char* bad : {"", "1.2.3", "1.2.3.", "1.2.3.256", "1.2.3.4.5", "1.2.3.4.example", "a.b.c.d",
                            "-1.2.3.4", "1..2.3", "99999999999.1.1.1"}) {
        EXPECT_EQ(stringToIp(bad), 0u) << bad;
    }
    EXPECT_EQ(stringToIp(nullptr), 0u);
}

TEST(FileList, LookUpsFindTheFirstWhateverHappensToTheList) {
    Owned<FileList> list;
    FileMeta* a = newFile("a", 1, 10, hashOf(1));
    FileMeta* b = newFile("b", 2, 20, hashOf(2));
    FileMeta* twin = newFile("b", 2, 20, hashOf(2));
    EXPECT_EQ(list.find(hashOf(1)), nullptr);
    for (FileMeta* file : {a, b, twin}) list.add(file);
    EXPECT_EQ(list.find(hashOf(2)), b);
    EXPECT_EQ(list.find(2, 20, "b"), b);
    EXPECT_EQ(list.find(2, 20, "B"), nullptr);
    EXPECT_EQ(list.find(2, 20, nullptr), nullptr);

    // A record that takes on another's key stands where the list has it.
    list.change(a, [](FileMeta& file) {
        file.hash = hashOf(2);
        file.setName("b");
        file.setInt(TAG_SIZE, 2);
        file.date = 20;
    });
    EXPECT_EQ(list.find(hashOf(2)), a);
    EXPECT_EQ(list.find(2, 20, "b"), a);
    EXPECT_EQ(list.find(hashOf(1)), nullptr);
    EXPECT_EQ(list.find(1, 10, "a"), nullptr);
    list.change(a, [](FileMeta& file) { file.hash = hashOf(1); });
    EXPECT_EQ(list.find(hashOf(2)), b);

    // Listed twice, it goes one occurrence at a time.
    list.add(b);
    EXPECT_TRUE(list.remove(b));
    EXPECT_EQ(list.find(hashOf(2)), twin);
    list.sort([](const Meta*, const Meta*) { return true; });
    EXPECT_THAT(list.snapshot(), ElementsAre(b, twin, a));
    EXPECT_EQ(list.find(hashOf(2)), b);
    EXPECT_EQ(list.find(2, 20, "b"), b);

    // Changed behind the list's back, a record isn't found by what it was, and still goes.
    b->hash = hashOf(9);
    EXPECT_EQ(list.find(hashOf(2)), twin);
    EXPECT_TRUE(list.remove(b));
    delete b;
    EXPECT_EQ(list.find(hashOf(9)), nullptr);
    list.clear();
    EXPECT_EQ(list.find(hashOf(2)), nullptr);
    list.add(a);
    EXPECT_EQ(list.find(hashOf(1)), a);
    delete twin;
}

TEST(FileList, AddUniqueGoesByTheHash) {
    Owned<FileList> list;
    FileMeta* a = newFile("a", 1, 10, hashOf(1));
    const std::unique_ptr<FileMeta> same(newFile("other", 2, 20, hashOf(1)));
    EXPECT_FALSE(list.addUnique(a));
    EXPECT_TRUE(list.addUnique(same.get()));
    EXPECT_THAT(list.snapshot(), ElementsAre(a));
}

TEST(FileList, OfRecordsWithOneHashTheLastStays) {
    Owned<FileList> list;
    FileMeta* const unknown[] = {newFile("x", 1, 1, MD4Hash()), newFile("y", 1, 1, MD4Hash())};
    list.add(newFile("a", 1, 10, hashOf(1)));
    list.add(unknown[0]);
    FileMeta* other = newFile("b", 1, 10, hashOf(2));
    list.add(other);
    list.add(newFile("a", 1, 0, hashOf(1)));
    list.add(unknown[1]);
    FileMeta* last = newFile("a", 1, 30, hashOf(1));
    list.add(last);
    list.deleteRepeated();
    EXPECT_THAT(list.snapshot(), ElementsAre(unknown[0], other, unknown[1], last));
    EXPECT_EQ(list.find(hashOf(1)), last);
}

TEST(ServerList, AddressesAreListedOnce) {
    Owned<ServerList> list;
    ServerMeta* first = newServer("1.2.3.4", 4661);
    EXPECT_FALSE(list.addIfNew(first));
    const std::unique_ptr<ServerMeta> same(newServer("1.2.3.4", 4661));
    EXPECT_TRUE(list.addIfNew(same.get()));
    same->setName("new");
    same->setPing(30);
    list.addOrUpdate(same.get());
    EXPECT_EQ(list.count(), 1u);
    i4_string name;
    EXPECT_STREQ(first->getName(name), "new");
    EXPECT_EQ(first->ping, 30);
    const std::unique_ptr<ServerMeta> other(newServer("1.2.3.4", 4662));
    list.addOrUpdate(other.get());
    EXPECT_EQ(list.count(), 2u);
    EXPECT_NE(list.get(1), other.get());
    list.addOrUpdate(nullptr);
    const std::unique_ptr<ServerMeta> nowhere(newServer("0.0.0.0", 4661));
    list.addOrUpdate(nowhere.get());
    EXPECT_EQ(list.count(), 2u);

    list.change(first, [](ServerMeta& server) { server.setAddress("5.6.7.8", 1); });
    EXPECT_EQ(find(list, "5.6.7.8", 1), first);
    EXPECT_EQ(find(list, "1.2.3.4", 4661), nullptr);
}

TEST(UserList, IsFoundByHash) {
    Owned<UserList> list;
    auto* user = new UserMeta;
    list.add(user);
    EXPECT_EQ(list.find(hashOf(1)), nullptr);
    list.change(user, [](UserMeta& changed) { changed.hash = hashOf(1); });
    EXPECT_EQ(list.find(hashOf(1)), user);
}

// Quadratic work here takes minutes, not the blink that it is allowed.
TEST(FileList, AHundredThousandAreAddedAndFoundAtOnce) {
    Owned<FileList> list;
    for (u32 i = 0; i < 100000; ++i) {
        MD4Hash hash = hashOf(1);  // alike in front, as a stranger would choose them
        hash.bytes[13] = static_cast<u8>(i);
        hash.bytes[14] = static_cast<u8>(i >> 8);
        hash.bytes[15] = static_cast<u8>(i >> 16);
        EXPECT_FALSE(list.addUnique(newFile("same", i, 5, hash)));
    }
    EXPECT_EQ(list.count(), 100000u);
    for (u32 i = 0; i < 100000; ++i) {
        const FileMeta* file = list.find(i, 5, "same");
        ASSERT_TRUE(file);
        ASSERT_EQ(file->getSize(), i);
        ASSERT_EQ(list.find(file->hash), file);
    }
}

TEST_F(MetaFiles, AListComesBackAsItWas) {
    Owned<ServerList> list;
    const Bytes one{14, 1, 0, 0, 0, 1, 2, 3, 4, 0x35, 0x12, 0, 0, 0, 0};
    const std::string file = path("server.met");
    put(file, one);
    EXPECT_EQ(list.load(file.c_str()), LoadResult::whole);
    ASSERT_EQ(list.count(), 1u);
    EXPECT_EQ(list.get(0)->port, 4661u);
    EXPECT_STREQ(ipToString(list.get(0)->ip).c_str(), "1.2.3.4");
    EXPECT_EQ(list.get(0)->rating, 0u);
    list.get(0)->setPing(50);
    EXPECT_EQ(list.get(0)->rating, 2099950u);
    EXPECT_TRUE(list.save(file.c_str()));
    EXPECT_EQ(get(file), diskForm(list));

    // A load adds; and a path may be typed the way of another system.
    std::string typed = file;
    for (char& c : typed) c = c == '/' ? '\\' : c;
    EXPECT_EQ(list.load(typed.c_str()), LoadResult::whole);
    EXPECT_EQ(list.count(), 2u);
    EXPECT_TRUE(list.save(typed.c_str()));
    EXPECT_EQ(get(file), diskForm(list));
    EXPECT_EQ(log.take(), "");
}

TEST_F(MetaFiles, ADamagedFileIsSetAsideAndWhatWasReadStays) {
    log.verbose = 1;
    const std::string file = path("known.met");
    Owned<FileList> list;
    EXPECT_EQ(list.load(file.c_str()), LoadResult::missing);
    EXPECT_TRUE(list.loadOrSetAside(file.c_str()));
    EXPECT_EQ(log.take(), "");

    Owned<FileList> three;
    for (const char* name : {"a", "b", "c"}) three.add(newFile(name));
    Bytes bytes = diskForm(three);
    bytes.resize(bytes.size() - 3);
    put(file, bytes);
    EXPECT_FALSE(list.loadOrSetAside(file.c_str()));
    EXPECT_EQ(
        log.take(),
        "ERROR: Meta::fromDisk()\nmeta #:3, n=2\nERROR: MetaList::fromDisk()\nError loading: " + file + "\n");
    ASSERT_EQ(list.count(), 2u);
    EXPECT_STREQ(list.get(1)->getName(), "b");
    EXPECT_EQ(get(file + ".bad"), bytes);
    EXPECT_FALSE(std::filesystem::exists(file));

    // Another first byte, an empty file, and a count that promises what never comes.
    for (const Bytes& bad : {Bytes{13, 0, 0, 0, 0}, Bytes{}, Bytes{14, 0xFF, 0xFF, 0xFF, 0x7F}}) {
        put(file, bad);
        Owned<FileList> empty;
        EXPECT_EQ(empty.load(file.c_str()), LoadResult::damaged);
        EXPECT_EQ(empty.count(), 0u);
    }
    EXPECT_EQ(log.take(), "meta #:2147483647, n=0\nERROR: MetaList::fromDisk()\n");
    put(file, {14, 0xFF, 0xFF, 0xFF, 0xFF});
    EXPECT_EQ(list.load(file.c_str()), LoadResult::whole) << "a count with its top bit set is none";
}

TEST(MetaList, ADamagedNetworkListSaysSoOnlyToTheCurious) {
    CapturedLog log;
    Owned<UserList> list;
    const Bytes promise{2, 0, 0, 0, 1, 2, 3};
    BytesFile quiet(promise);
    EXPECT_FALSE(list.fromNetwork(quiet));
    EXPECT_EQ(log.take(), "");
    log.verbose = 1;
    BytesFile loud(promise);
    EXPECT_FALSE(list.fromNetwork(loud));
    EXPECT_EQ(log.take(), "meta #:2, n=0\nERROR: MetaList::fromNetwork()\n");
    BytesFile none(Bytes{});
    EXPECT_FALSE(list.fromNetwork(none));
}

template <class List>
void sweepList(List& good) {
    const auto read = [](std::span<const std::uint8_t> bytes, StreamForm form) {
        Owned<List> list;
        BytesFile file(bytes);
        try {
            form == StreamForm::disk ? list.fromDisk(file) : list.fromNetwork(file);
        } catch (const i4_err&) {
            EXPECT_LT(bytes.size(), 5u) << "only the first five bytes of a file raise";
        }
        list.print();
        EXPECT_LE(list.count(), 2u);
    };
    sweepDamage(diskForm(good), [&](std::span<const std::uint8_t> bytes) { read(bytes, StreamForm::disk); });
    sweepDamage(networkForm(good),
                [&](std::span<const std::uint8_t> bytes) { read(bytes, StreamForm::network); });
}

TEST(MetaList, DamageIsRefusedOrRead) {
    CapturedLog log;
    Owned<FileList> files;
    files.add(newFile("a name", 1000, 5, hashOf(1)));
    files.add(newFile("b", 1, 5, hashOf(2)));
    files.get(0)->partHashes = {hashOf(3), hashOf(4)};
    sweepList(files);
    Owned<ServerList> servers;
    servers.add(newServer("1.2.3.4", 4661));
    servers.get(0)->setName("Home");
    sweepList(servers);
    Owned<UserList> users;
    users.add(new UserMeta);
    users.get(0)->setName("me");
    sweepList(users);
}

TEST(CoreUIInterface, DropsResultsWithoutALeak) {
    CoreUIInterface ui;
    ui.addResult(newFile("a"));
    auto* files = new FileList;
    files->add(newFile("b"));
    ui.setResults(files, 1);
    auto* users = new UserList;
    users->add(new UserMeta);
    ui.gotUserList(users);
}

}  // namespace
