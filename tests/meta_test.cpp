// Tags, records and lists of records: their bytes, their files, their rules and their indexes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "core/StateFiles.h"
#include "meta/BoolArray.h"
#include "meta/FileList.h"
#include "meta/ServerList.h"
#include "meta/UserList.h"
#include "meta/address.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/bytes.h"
#include "tests/support/files.h"
#include "tests/support/systemDisk.h"

namespace {

using testing::ElementsAre;

std::unique_ptr<MetaTag> tagOf(const Bytes& bytes, i4_log* log = nullptr) {
    BytesFile file(bytes);
    file.setLog(log);
    return MetaTag::readTag(file);
}

std::string printed(const MetaTag& tag, i32 n = 255) {
    char text[255] = "unchanged";
    const char* result = tag.printable(text, n);
    return result ? result : "(null)";
}

// Of a tag or a record.
template <class Saved>
Bytes diskForm(Saved& saved) {
    return written([&](i4_file& file) { EXPECT_TRUE(saved.toDisk(file)); });
}

template <class Record>
Bytes networkForm(const Record& record) {
    const Bytes bytes = written([&](i4_file& file) { EXPECT_TRUE(record.toNetwork(file)); });
    EXPECT_EQ(bytes.size(), record.byteSize());
    return bytes;
}

template <class Record>
bool readDisk(Record& record, const Bytes& bytes) {
    BytesFile file(bytes);
    return record.fromDisk(file);
}

template <class Record>
bool readNetwork(Record& record, const Bytes& bytes) {
    BytesFile file(bytes);
    return record.fromNetwork(file);
}

TEST(MetaTag, EachTypeHasItsBytesAndItsText) {
    MD4Hash hash;
    hash.fromText("000102030405060708090a0b0c0d0e0f");
    const u32 allOnes = 0xFFFFFFFF;
    const f32 tenth = -0.15625F;
    const u8 two = 2;
    BoolArray ten(10);
    ten.set(0, true);
    ten.set(5, true);
    const BoolArray eight(8), none;
    const MetaBlob blob{9, 8, 7};
    const struct {
        std::unique_ptr<MetaTag> tag;
        Bytes bytes;
        const char* text = "unchanged";
    } cases[] = {
        {MetaTag::makeTag(META_TAG_INT, "ab", nullptr), {3, 2, 0, 'a', 'b', 0, 0, 0, 0}, "0"},
        {MetaTag::makeTag(META_TAG_INT, nullptr, &allOnes), {3, 1, 0, 'n', 255, 255, 255, 255}, "-1"},
        {MetaTag::makeTag(TAG_NAME, "xyz"), {2, 1, 0, 1, 3, 0, 'x', 'y', 'z'}, "xyz"},
        {MetaTag::makeTag(META_TAG_STRING, "", nullptr), {2, 0, 0, 0, 0}, "(null)"},
        {MetaTag::makeTag(META_TAG_FLOAT, "f", &tenth), {4, 1, 0, 'f', 0, 0, 0x20, 0xBE}, "-0.156250"},
        {MetaTag::makeTag(META_TAG_BOOL, "b", &two), {5, 1, 0, 'b', 1}, "true"},
        {MetaTag::makeTag(META_TAG_BOOL, "b", nullptr), {5, 1, 0, 'b', 0}, "false"},
        {MetaTag::makeTag(TAG_PART_HASH, &hash),
         {1, 1, 0, 7, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15},
         "000102030405060708090a0b0c0d0e0f"},
        {MetaTag::makeTag(META_TAG_BOOLARRAY, "a", &ten), {6, 1, 0, 'a', 10, 0, 0x21, 0}},
        {MetaTag::makeTag(META_TAG_BOOLARRAY, "a", &eight), {6, 1, 0, 'a', 8, 0, 0, 0}},
        {MetaTag::makeTag(META_TAG_BOOLARRAY, "a", &none), {6, 1, 0, 'a', 0, 0}},
        {MetaTag::makeTag(META_TAG_BLOB, "x", &blob), {7, 1, 0, 'x', 3, 0, 0, 0, 9, 8, 7}},
        {MetaTag::makeTag(META_TAG_BLOB, "x", nullptr), {7, 1, 0, 'x', 0, 0, 0, 0}},
    };
    for (const auto& [tag, bytes, text] : cases) {
        EXPECT_EQ(diskForm(*tag), bytes);
        EXPECT_EQ(printed(*tag), text);
        const auto read = tagOf(bytes);
        ASSERT_TRUE(read);
        EXPECT_EQ(diskForm(*read), bytes);
    }
    EXPECT_EQ(printed(*cases[2].tag, 3), "xy");
    EXPECT_EQ(printed(*cases[2].tag, 0), "(null)");
    EXPECT_EQ(printed(*cases[7].tag, 5), "0001");
    for (u32 room = 0; room < cases[2].bytes.size(); ++room) {
        BytesFile file{Bytes(room)};
        EXPECT_FALSE(cases[2].tag->toNetwork(file)) << "a stream that takes no more";
    }
}

TEST(MetaTag, ANameOfOneByteIsARow) {
    const struct {
        Bytes name;
        const char* own;
        u32 id;
        const char* shown;
        bool flag;
    } cases[] = {{{1}, "\x01", TAG_NAME, "Name", true},
                 {{23}, "\x17", TAG_PARTS, "parts", false},
                 {{24}, "\x18", 24, "\x18", true},
                 {{'n'}, nullptr, 0, nullptr, true},
                 {{}, "", 0, "", true},
                 {{0}, "", 0, "", true},
                 {{2, 0, 'x'}, "\x02", TAG_SIZE, "Size", false}};
    for (const auto& c : cases) {
        Bytes bytes{3, static_cast<u8>(c.name.size()), 0};
        bytes.insert(bytes.end(), c.name.begin(), c.name.end());
        bytes.insert(bytes.end(), {5, 0, 0, 0});
        SCOPED_TRACE(testing::PrintToString(bytes));
        const auto tag = tagOf(bytes);
        EXPECT_STREQ(tag->name(), c.own);
        EXPECT_EQ(tag->id(), c.id);
        EXPECT_STREQ(tag->displayName(), c.shown);
        EXPECT_EQ(tag->flagA(), c.flag);
        EXPECT_FALSE(tag->isNamed("n"));
    }
}

TEST(MetaTag, WhatIsNoTagGivesNone) {
    CapturedLog log;
    EXPECT_EQ(MetaTag::makeTag(static_cast<TagIndex>(24), nullptr), nullptr);
    EXPECT_EQ(MetaTag::makeTag(static_cast<TagIndex>(0), nullptr), nullptr);
    EXPECT_EQ(tagOf({8, 1, 0, 'a'}, &log), nullptr);
    EXPECT_EQ(log.take(), "ERROR: unknown type MetaTag::makeTag() 8\nerror in tag from bytes\n");
    EXPECT_EQ(tagOf({3, 1, 0, 2, 1, 0, 0}), nullptr);
    EXPECT_EQ(tagOf({7, 1, 0, 'x', 0xFF, 0xFF, 0xFF, 0xFF, 1, 2}), nullptr);
    EXPECT_EQ(log.take(), "") << "short streams say nothing";

    // Off a stream that can't tell its length, a blob is believed a piece at a time. 4 GiB that never come
    // would be refused under the sanitizers.
    class Unknown : public BytesFile {
      public:
        using BytesFile::BytesFile;
        std::optional<u32> bytesLeft() override { return std::nullopt; }
    };
    Bytes bytes{7, 1, 0, 'x', 0, 0, 2, 0};  // 128 KiB
    bytes.resize(bytes.size() + 128 * 1024, 5);
    Unknown whole(bytes);
    EXPECT_EQ(diskForm(*MetaTag::readTag(whole)), bytes);
    bytes[4] = bytes[5] = bytes[6] = bytes[7] = 0xFF;
    Unknown hostile(bytes);
    EXPECT_EQ(MetaTag::readTag(hostile), nullptr);
}

TEST(BoolArray, BitsLieInTheirBytesAndNoneBehindThem) {
    BoolArray bits(10);
    for (const i32 at : {0, 5, 9, 10, -1}) bits.set(at, true);
    bits.set(5, false);
    EXPECT_EQ(bits.toText(), "1000000001");
    for (const i32 at : {5, 10, 1000000, -1}) EXPECT_FALSE(bits.get(at)) << at;
    EXPECT_EQ(written([&](i4_file& file) { bits.write(file); }), (Bytes{10, 0, 1, 2}));
    bits.setAll(true);
    EXPECT_EQ(written([&](i4_file& file) { bits.write(file); }), (Bytes{10, 0, 0xFF, 0xFF}));
    BoolArray copy(3);
    copy.copyFrom(&bits);
    EXPECT_EQ(copy, bits);
    copy.copyFrom(nullptr);
    EXPECT_EQ(copy.toText(), "0000000000");
    BytesFile cut(Bytes{9, 0, 0xFF});
    EXPECT_THROW(copy.read(cut), i4_err);
    EXPECT_EQ(copy.size(), 0);
}

// A list that owns its records, as a test wants it.
template <class List>
struct Owned : List {
    ~Owned() override { List::deleteAll(); }
};

FileMeta* newFile(const char* name, u32 size = 0, u32 date = 0, MD4Hash hash = {}) {
    auto* file = new FileMeta;
    file->setName(name);
    file->setInt(TAG_SIZE, size);
    file->date = date;
    file->hash = hash;
    return file;
}

std::vector<std::string> namesOf(const Meta& record) {
    std::vector<std::string> names;
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = record.getTags().next(c);) {
        names.emplace_back(tag->displayName() ? tag->displayName() : "(null)");
    }
    return names;
}

TEST(Meta, TagsKeepTheirOrderAndTheFirstOfANameCounts) {
    Meta record;
    record.setText(TAG_NAME, "one");
    record.setInt(TAG_SIZE, 5);
    record.setInt("users", 7);
    record.setText(TAG_NAME, "two");
    EXPECT_FALSE(record.addTag("users", META_TAG_INT));
    EXPECT_TRUE(record.addTag("files", META_TAG_INT));

    // From the network a record adds to what is there, from disk it replaces it.
    const Bytes more{2, 0, 0, 0, 2, 1, 0, 1, 3, 0, 'n', 'e', 'w', 3, 1, 0, 'n', 9, 0, 0, 0};
    EXPECT_TRUE(readNetwork(record, more));
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "Size", "users", "files", "Name", "(null)"));
    EXPECT_STREQ(record.getText(TAG_NAME), "two");
    EXPECT_TRUE(record.removeTag(TAG_NAME));
    EXPECT_STREQ(record.getText(TAG_NAME), "new");
    EXPECT_EQ(record.findTag("n"), nullptr) << "a tag without a name is passed over";
    EXPECT_TRUE(readDisk(record, more));
    Meta copy;
    copy.setInt("old", 1);
    copy.copyFrom(&record);
    copy.copyFrom(nullptr);
    EXPECT_EQ(networkForm(copy), more);

    EXPECT_FALSE(readDisk(record, {2, 0, 0, 0, 3, 1, 0, 2, 1, 0, 0, 0, 3, 1, 0}));
    EXPECT_THAT(namesOf(record), ElementsAre("Size")) << "damaged, it keeps what was read";
    EXPECT_TRUE(readDisk(record, {0xFF, 0xFF, 0xFF, 0xFF, 1})) << "with its top bit set, a count is 0";
}

// A stranger's record may have any type under any name: nothing reads past the value that is there.
TEST(Meta, AnotherTypeThanTheNamePromisesIsNoTrap) {
    Meta record;
    const u32 number = 0x41414141;
    const f32 half = 0.5F;
    record.setTag(tagTable[TAG_NAME].wireName, &number, META_TAG_INT);
    record.setTag(tagTable[TAG_SIZE].wireName, "x", META_TAG_STRING);
    record.setTag("flag", nullptr, META_TAG_BOOL);
    record.setTag("half", &half, META_TAG_FLOAT);
    EXPECT_EQ(record.getText(TAG_NAME), nullptr);
    EXPECT_EQ(record.getInt(TAG_SIZE) + record.getInt("flag"), 0U);
    EXPECT_EQ(record.getInt("half"), 0x3F000000U);
    EXPECT_FALSE(record.setTagValue(tagTable[TAG_SIZE].wireName, &number, META_TAG_INT));
    // Set, each takes the type of its name and keeps its place.
    record.setText(TAG_NAME, "name");
    record.setInt(TAG_SIZE, 3);
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "Size", "flag", "half"));
    EXPECT_STREQ(record.getText(TAG_NAME), "name");
    EXPECT_EQ(record.getInt(TAG_SIZE), 3U);
}

TEST(MetaList, RecordsComeAndGoByPointerAndAreSearched) {
    FileList list, other, gone, found;
    FileMeta a, b, c;
    for (FileMeta* file : {&a, &b, &a, &c}) list.add(file);
    other.addAll(list);
    EXPECT_TRUE(list.remove(&a));
    EXPECT_THAT(list.snapshot(), ElementsAre(&b, &a, &c));
    // Each occurrence in the other takes one away.
    gone.add(&a);
    gone.add(&c);
    other.removeAll(&gone);
    EXPECT_THAT(other.snapshot(), ElementsAre(&b, &a));
    other.removeAll(&other);
    EXPECT_EQ(other.count(), 0U);

    struct Large final : MetaMatcher {
        bool matches(const Meta& record) const override { return record.getInt(TAG_SIZE) > 10; }
    };
    a.setInt(TAG_SIZE, 0xFFFFFFFF);
    c.setInt(TAG_SIZE, 11);
    list.search(Large(), found, 1);
    EXPECT_THAT(found.snapshot(), ElementsAre(&a));
    list.search(Large(), found, 0);
    EXPECT_EQ(found.count(), 3U);

    a.partHashes = {hashOf(5)};
    a.path = "/x/a";
    a.date = 7;
    Owned<FileList> copies;
    copies.copyFrom(&gone);
    ASSERT_EQ(copies.count(), 2U);
    EXPECT_NE(copies.get(0), &a);
    EXPECT_STREQ(copies.get(0)->path.c_str(), "/x/a");
    EXPECT_EQ(copies.get(0)->date, 0U) << "the date stays as it was";
    EXPECT_THAT(copies.get(0)->partHashes, ElementsAre(hashOf(5)));
}

TEST(MetaList, NetworkFormsOfAllThreeRecordsStartAlike) {
    FileMeta file;
    file.hash = hashOf(1);
    file.partHashes.push_back(hashOf(9));
    file.setInt(TAG_SIZE, 1000);
    const std::string tags = le32(1) + "\3" + text16("\2") + le32(1000);
    EXPECT_EQ(viewOf(networkForm(file)), std::string(16, 1) + std::string(6, 0) + tags);

    UserMeta user;
    user.hash = hashOf(1);
    user.id = stringToIp("1.2.3.4");
    user.port = 4662;
    user.setInt(TAG_SIZE, 1000);
    const Bytes bytes = networkForm(user);
    EXPECT_EQ(viewOf(bytes), std::string(16, 1) + "\1\2\3\4\x36\x12" + tags);
    ServerMeta server;  // drops the 16 bytes
    EXPECT_TRUE(readNetwork(server, bytes));
    EXPECT_THAT(namesOf(server), ElementsAre("Size", "ping", "users", "files"));
    EXPECT_EQ(viewOf(networkForm(server)).substr(0, 22), std::string(16, 0) + "\1\2\3\4\x36\x12");

    // An address that will not last is not saved.
    UserMeta saved;
    saved.port = 4662;
    saved.id = highestLowId + 1;
    EXPECT_EQ(viewOf(diskForm(saved)), le32(highestLowId + 1) + le16(4662) + std::string(20, 0));
    saved.id = highestLowId;
    EXPECT_EQ(diskForm(saved), Bytes(26, 0));
}

TEST(ServerMeta, RatingFollowsPreferenceAndPingAndIsForgotten) {
    ServerMeta server;
    const struct {
        u32 pref;
        i32 ping;
        u32 rating;
    } cases[] = {{1, 50, 3099950}, {2, 50, 1099950}, {3, 50, 9099950},     {0, 0, 0},
                 {0, 1, 0},        {0, -5, 0},       {0, 100001, 1999999}, {0, 50, 2099950}};
    server.history = 4;
    for (const auto& c : cases) {
        server.setPref(c.pref);
        server.setPing(c.ping);
        EXPECT_EQ(server.rating, c.rating) << c.pref << ", " << c.ping;
    }
    EXPECT_EQ(server.history, 0U);
    server.setPing(0);
    EXPECT_EQ(server.history, 0U);
    i4_string name;
    server.setAddress("1.2.3.4", 4661);
    EXPECT_STREQ(server.getName(name), "1.2.3.4");
    server.setName("Home");
    EXPECT_STREQ(server.getName(name), "Home");

    // Reading forgets what an earlier run measured, but for who was liked and how often one was silent.
    server.setPing(50);
    server.setCounts(10, 20);
    server.setPref(1);
    server.history = 6;
    ServerMeta again;
    EXPECT_TRUE(readDisk(again, diskForm(server)));
    EXPECT_EQ(again.pref, 1U);
    EXPECT_EQ(again.history, 6U) << "the field was saved, not the older tag";
    EXPECT_EQ(again.ping, 1);
    EXPECT_EQ(again.rating + again.getInt(TAG_PING) + again.getUsers() + again.getFiles(), 0U);
    EXPECT_FALSE(server.setAddress("nowhere", 4661));
    EXPECT_FALSE(server.sameServer(&server)) << "no address is like no other";
}

TEST(UserMeta, WhoIsTheSameUser) {
    const u32 high = highestLowId + 1;
    const u32 low = highestLowId;
    const struct {
        u32 id, server, otherId, otherServer;
        u8 hash, otherHash;
        bool same;
    } cases[] = {{high, 1, high, 2, 1, 2, true}, {low, 1, low, 1, 1, 2, true},  {low, 1, low, 2, 1, 1, true},
                 {low, 1, low, 2, 1, 2, false},  {low, 1, low, 2, 0, 0, false}, {5, 1, high, 2, 1, 1, true}};
    for (const auto& c : cases) {
        UserMeta one, other;
        one.id = c.id, one.serverIp = c.server, one.hash = hashOf(c.hash);
        other.id = c.otherId, other.serverIp = c.otherServer, other.hash = hashOf(c.otherHash);
        EXPECT_EQ(one.sameUser(&other), c.same) << &c - cases;
    }
}

TEST(Address, TextAndNumber) {
    EXPECT_STREQ(ipToString(0xFF030201).c_str(), "1.2.3.255");
    EXPECT_EQ(stringToIp("255.0.0.1\n"), 0x010000FFU);
    for (const char* bad : {"", "1.2.3.", "1.2.3.256", "1.2.3.4.5", "1.2.3.4.example", "-1.2.3.4", "1..2.3",
                            "99999999999.1.1.1", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(stringToIp(bad), 0U) << (bad ? bad : "null");
    }
}

TEST(FileList, LookUpsFindTheFirstWhateverHappensToTheList) {
    Owned<FileList> list;
    FileMeta* a = newFile("a", 1, 10, hashOf(1));
    FileMeta* b = newFile("b", 2, 20, hashOf(2));
    FileMeta* twin = newFile("b", 2, 20, hashOf(2));
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

    // Changed behind the list's back, a record isn't found by what it was, and still goes.
    b->hash = hashOf(9);
    EXPECT_EQ(list.find(hashOf(2)), twin);
    EXPECT_TRUE(list.remove(b));
    delete b;
    list.clear();
    EXPECT_EQ(list.find(hashOf(2)), nullptr);
    list.add(a);
    EXPECT_EQ(list.find(hashOf(1)), a);
    delete twin;
}

TEST(FileList, OfOneHashTheFirstIsAddedAndTheLastStays) {
    Owned<FileList> list;
    FileMeta* const unknown[] = {newFile("x"), newFile("y")};
    FileMeta* const last = newFile("a", 1, 30, hashOf(1));
    EXPECT_FALSE(list.addUnique(newFile("a", 1, 10, hashOf(1))));
    EXPECT_TRUE(list.addUnique(last));
    for (FileMeta* file : {unknown[0], newFile("a", 1, 0, hashOf(1)), unknown[1], last}) list.add(file);
    list.deleteRepeated();
    EXPECT_THAT(list.snapshot(), ElementsAre(unknown[0], unknown[1], last));
    EXPECT_EQ(list.find(hashOf(1)), last);
}

TEST(ServerList, AddressesAreListedOnceAndUsersFoundByHash) {
    Owned<ServerList> list;
    const auto find = [&](const char* ip, u32 port) {
        const i4_guard guard(list);
        return list.find(stringToIp(ip), port);
    };
    auto* first = new ServerMeta;
    first->setAddress("1.2.3.4", 4661);
    EXPECT_FALSE(list.addIfNew(first));
    ServerMeta same;
    same.setAddress("1.2.3.4", 4661);
    EXPECT_TRUE(list.addIfNew(&same));
    same.setName("new");
    same.setPing(30);
    list.addOrUpdate(&same);
    EXPECT_EQ(list.count(), 1U);
    EXPECT_STREQ(first->getText(TAG_NAME), "new");
    EXPECT_EQ(first->ping, 30);
    same.setAddress("1.2.3.4", 4662);
    list.addOrUpdate(&same);
    EXPECT_EQ(list.count(), 2U);
    EXPECT_NE(list.get(1), &same);
    same.setAddress("0.0.0.0", 4661);
    list.addOrUpdate(&same);
    EXPECT_EQ(list.count(), 2U);
    list.change(first, [](ServerMeta& server) { server.setAddress("5.6.7.8", 1); });
    EXPECT_EQ(find("5.6.7.8", 1), first);
    EXPECT_EQ(find("1.2.3.4", 4661), nullptr);

    Owned<UserList> users;
    auto* user = new UserMeta;
    users.add(user);
    users.change(user, [](UserMeta& changed) { changed.hash = hashOf(1); });
    EXPECT_EQ(users.find(hashOf(1)), user);
}

// Quadratic work here takes minutes, not the blink that it is allowed.
TEST(FileList, FortyThousandAreAddedAndFoundAtOnce) {
    Owned<FileList> list;
    const auto hashAt = [](u32 i) {
        MD4Hash hash = hashOf(1);  // alike in front, as a stranger would choose them
        hash.bytes[14] = static_cast<u8>(i >> 8);
        hash.bytes[15] = static_cast<u8>(i);
        return hash;
    };
    for (u32 i = 0; i < 40000; ++i) EXPECT_FALSE(list.addUnique(newFile("same", i, 5, hashAt(i))));
    for (u32 i = 0; i < 40000; ++i) ASSERT_EQ(list.find(i, 5, "same"), list.find(hashAt(i)));
}

TEST(MetaFiles, AListComesBackAsItWas) {
    CapturedLog log;
    const TemporaryDirectory folder;
    Owned<FileList> list;
    FileMeta* file = newFile("a", 3, 0x01020304, hashOf(7));
    file->partHashes = {hashOf(8), hashOf(9)};
    file->path = "/not/saved";
    list.add(file);
    const Bytes bytes = diskForm(list);
    EXPECT_EQ(viewOf(bytes), "\x0E" + le32(1) + le32(0x01020304) + std::string(16, 7) + le16(2) +
                                 std::string(16, 8) + std::string(16, 9) + le32(2) + "\2" + text16("\1") +
                                 text16("a") + "\3" + text16("\2") + le32(3));
    // A path may be typed the way of another system; and a load adds.
    const std::string typed = folder.path() + "\\known.met";
    EXPECT_EQ(list.save(systemDisk(), typed.c_str()), "");
    EXPECT_EQ(contentOf(folder.file("known.met")), viewOf(bytes));
    EXPECT_EQ(list.load(systemDisk(), typed.c_str()), LoadResult::whole);
    EXPECT_EQ(list.count(), 2U);
    EXPECT_EQ(diskForm(*list.get(1)), diskForm(*file));
    EXPECT_TRUE(list.get(1)->matches(3, 0x01020304, "a"));
    EXPECT_EQ(log.take(), "");
}

TEST(MetaFiles, ADamagedFileIsSetAsideAndWhatWasReadStays) {
    CapturedLog log;
    log.setVerbose(true);
    const TemporaryDirectory folder;
    const std::string file = folder.file("known.met");
    Owned<FileList> list, three;
    EXPECT_EQ(list.load(systemDisk(), file.c_str()), LoadResult::missing);
    StateFiles files(systemDisk(), log);
    EXPECT_EQ(files.load(list, file.c_str()), LoadResult::missing);
    EXPECT_EQ(log.take(), "");
    for (const char* name : {"a", "b", "c"}) three.add(newFile(name));
    Bytes bytes = diskForm(three);
    bytes.resize(bytes.size() - 3);
    writeFile(file, viewOf(bytes));
    EXPECT_EQ(files.load(list, file.c_str()), LoadResult::damaged);
    EXPECT_EQ(
        log.take(),
        "ERROR: Meta::fromDisk()\nmeta #:3, n=2\nERROR: MetaList::fromDisk()\nError loading: " + file + "\n");
    ASSERT_EQ(list.count(), 2U);
    EXPECT_STREQ(list.get(1)->getName(), "b");
    EXPECT_EQ(contentOf(file + ".bad"), viewOf(bytes));
    EXPECT_FALSE(exists(file));

    // Another first byte, an empty file, and a count that promises what never comes; one with its top bit set
    // is none.
    const std::pair<std::string, LoadResult> others[] = {{"\x0D" + le32(0), LoadResult::damaged},
                                                         {"", LoadResult::damaged},
                                                         {"\x0E" + le32(0x7FFFFFFF), LoadResult::damaged},
                                                         {"\x0E" + le32(0xFFFFFFFF), LoadResult::whole}};
    for (const auto& [content, result] : others) {
        writeFile(file, content);
        Owned<FileList> empty;
        EXPECT_EQ(empty.load(systemDisk(), file.c_str()), result);
        EXPECT_EQ(empty.count(), 0U);
    }
    log.take();
    log.setVerbose(false);
    Owned<UserList> users;
    EXPECT_FALSE(readNetwork(users, {2, 0, 0, 0, 1, 2, 3}));
    EXPECT_EQ(log.take(), "");
}

}  // namespace
