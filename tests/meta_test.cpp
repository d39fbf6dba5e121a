// Tags, records and lists of records: their bytes, files, rules and indexes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

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

std::unique_ptr<MetaTag> tagOf(const std::string& bytes, i4_log* log = nullptr) {
    BytesFile file(Bytes(bytes.begin(), bytes.end()));
    file.setLog(log);
    return MetaTag::readTag(file);
}

std::string printed(const MetaTag& tag, i32 n = 255) {
    char text[255] = "unchanged";
    return orEmpty(tag.printable(text, n));
}

// The bytes of a tag, a record or a list.
template <class Saved>
std::string diskForm(Saved& saved) {
    return std::string(viewOf(written([&](i4_file& file) { EXPECT_TRUE(saved.toDisk(file)); })));
}
std::string networkForm(const Meta& record) {
    const Bytes bytes = written([&](i4_file& file) { EXPECT_TRUE(record.toNetwork(file)); });
    EXPECT_EQ(bytes.size(), record.byteSize());
    return std::string(viewOf(bytes));
}

bool readDisk(Meta& record, std::string_view bytes) {
    BytesFile file(Bytes(bytes.begin(), bytes.end()));
    return record.fromDisk(file);
}
bool readNetwork(Meta& record, std::string_view bytes) {
    BytesFile file(Bytes(bytes.begin(), bytes.end()));
    return record.fromNetwork(file);
}

TEST(MetaTag, EachTypeHasItsBytesAndItsText) {
    const std::pair<std::string, std::string> cases[] = {
        {"\1" + text16("\7") + "0123456789abcdef", "30313233343536373839616263646566"},
        {"\2" + text16("\1") + text16("xyz"), "xyz"},
        {"\3" + text16("n") + le32(0xFFFFFFFF), "-1"},
        {"\4" + text16("f") + le32(0xBE200000), "-0.156250"},
        {"\5" + text16("b") + "\1", "true"},
        {"\5" + text16("b") + '\0', "false"},
        {"\6" + text16("a") + le16(8) + le16(0x21), "unchanged"},
        {"\7" + text16("x") + le32(3) + "987", "unchanged"},
    };
    for (const auto& [bytes, text] : cases) {
        const auto tag = tagOf(bytes);
        EXPECT_EQ(diskForm(*tag), bytes);
        EXPECT_EQ(printed(*tag), text);
        EXPECT_EQ(printed(*tag, 3), text == "unchanged" ? text : text.substr(0, 2));
        EXPECT_EQ(printed(*tag, 0), text == "unchanged" ? text : "");
        for (std::size_t room = 0; room < bytes.size(); ++room) {
            BytesFile file{Bytes(room)};
            EXPECT_FALSE(tag->toNetwork(file)) << "a stream that takes no more";
        }
    }
    EXPECT_EQ(diskForm(*MetaTag::makeTag("ab", 0U)), "\3" + text16("ab") + le32(0));
    EXPECT_EQ(diskForm(*MetaTag::makeTag("", nullptr)), "\2" + le32(0));
}

TEST(MetaTag, ANameOfOneByteIsARow) {
    const struct {
        std::string name;
        const char* own;
        u32 id;
        const char* shown;
    } cases[] = {{"\1", "\x01", TAG_NAME, "Name"},
                 {"\x17", "\x17", TAG_PARTS, "parts"},
                 {"\x18", "\x18", 24, "\x18"},
                 {"n", nullptr, 0, nullptr},
                 {"", "", 0, ""},
                 {std::string("\2\0x", 3), "\x02", TAG_SIZE, "Size"}};
    for (const auto& c : cases) {
        const auto tag = tagOf("\3" + text16(c.name) + le32(5));
        EXPECT_STREQ(tag->name(), c.own);
        EXPECT_EQ(tag->id(), c.id);
        EXPECT_STREQ(tag->displayName(), c.shown);
    }
}

TEST(MetaTag, WhatIsNoTagGivesNone) {
    CapturedLog log;
    EXPECT_EQ(MetaTag::makeTag(static_cast<TagIndex>(24), nullptr), nullptr);
    EXPECT_EQ(tagOf("\x08" + text16("a"), &log), nullptr);
    EXPECT_EQ(log.take(), "ERROR: unknown type MetaTag::makeTag() 8\nerror in tag from bytes\n");
    EXPECT_EQ(tagOf("\7" + text16("x") + le32(0xFFFFFFFF) + "12", &log), nullptr);
    EXPECT_EQ(log.take(), "") << "short streams say nothing";

    // If a stream doesn't know its length, a blob is read piece by piece: the sanitizers would refuse an
    // allocation of the 4 GiB that never arrive.
    struct Unknown : BytesFile {
        using BytesFile::BytesFile;
        std::optional<u32> bytesLeft() override { return std::nullopt; }
    };
    Bytes bytes{7, 1, 0, 'x', 0, 0, 2, 0};  // 128 KiB
    bytes.resize(bytes.size() + 128 * 1024, 5);
    Unknown whole(bytes);
    EXPECT_EQ(diskForm(*MetaTag::readTag(whole)), viewOf(bytes));
    bytes[7] = 0xFF;
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
    bits.copyFrom(nullptr);
    EXPECT_EQ(bits.toText(), "0000000000");
    bits.setAll(true);
    EXPECT_EQ(written([&](i4_file& file) { bits.write(file); }), (Bytes{10, 0, 0xFF, 0xFF}));
}

// A list that owns its records, for tests.
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
    for (const auto& tag : record.getTags()) {
        names.emplace_back(tag->displayName() ? tag->displayName() : "(null)");
    }
    return names;
}

TEST(Meta, TagsKeepTheirOrderAndTheFirstOfANameCounts) {
    Meta record;
    record.setText(TAG_NAME, "one");
    record.setInt(TAG_SIZE, 5);
    static_assert(!std::is_convertible_v<MetaTagType, MetaTag::Value>, "a type is no value");
    EXPECT_TRUE(record.addTag("files", 0U));
    EXPECT_FALSE(record.addTag("files", 0U));

    // Reading from the network adds to a record; reading from disk replaces it.
    const std::string more = le32(2) + "\2" + text16("\1") + text16("new") + "\3" + text16("n") + le32(9);
    EXPECT_TRUE(readNetwork(record, more));
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "Size", "files", "Name", "(null)"));
    EXPECT_STREQ(record.getText(TAG_NAME), "one");
    EXPECT_TRUE(record.removeTag(TAG_NAME));
    EXPECT_STREQ(record.getText(TAG_NAME), "new");
    EXPECT_EQ(record.findTag("n"), nullptr) << "a tag without a name is passed over";
    EXPECT_TRUE(readDisk(record, more));
    Meta copy;
    copy.setInt("old", 1);
    copy.copyFrom(&record);
    copy.copyFrom(nullptr);
    EXPECT_EQ(networkForm(copy), more);

    EXPECT_FALSE(readDisk(record, more.substr(0, more.size() - 1)));
    EXPECT_THAT(namesOf(record), ElementsAre("Name")) << "damaged, it keeps what was read";
    EXPECT_TRUE(readDisk(record, le32(0xFFFFFFFF) + "\1")) << "with its top bit set, a count is 0";
}

// Tags beyond the limits are read, so that what follows in the stream is found, but not kept.
TEST(Meta, ARecordFromTheNetworkKeepsSoManyTagsAndSoManyBytes) {
    std::string many = le32(2 * 300 + 1);
    for (u32 i = 0; i < 600; ++i) many += "\3" + text16(i % 2 ? "\x12" : "\x14") + le32(i);
    const std::string large = "\2" + text16("\1") + text16(std::string(9000, 'x'));
    const std::string last = "\3" + text16("\2") + le32(77);
    Meta record;
    EXPECT_TRUE(readDisk(record, many + last));
    EXPECT_EQ(record.getTags().size(), 601U) << "what is ours comes back whole";
    const TagIndex ofDownloads[] = {TAG_TEMPFILENAME, TAG_STATE};
    record.removeTags(ofDownloads);
    EXPECT_THAT(namesOf(record), ElementsAre("Size"));
    record.clearTags();
    EXPECT_TRUE(readNetwork(record, many + last));
    EXPECT_EQ(record.getTags().size(), 256U);
    record.clearTags();
    EXPECT_TRUE(readNetwork(record, le32(3) + large + large + last));
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "Size"));
}

// A stranger's record may have any type under any name: nothing reads past the value that is there.
TEST(Meta, AnotherTypeThanTheNamePromisesIsNoTrap) {
    Meta record;
    const u32 number = 0x41414141;
    const f32 half = 0.5F;
    record.setTag(tagTable[TAG_NAME].wireName, number);
    record.setTag(tagTable[TAG_SIZE].wireName, "x");
    record.setTag("flag", false);
    record.setTag("half", half);
    EXPECT_EQ(record.getText(TAG_NAME), nullptr);
    EXPECT_EQ(record.getInt(TAG_SIZE) + record.getInt("flag"), 0U);
    EXPECT_EQ(record.getInt("half"), 0x3F000000U);
    EXPECT_FALSE(record.setTagValue(tagTable[TAG_SIZE].wireName, number));
    // Setting a value changes the tag to the type of its name, and keeps its place.
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
    // Each occurrence in the other list removes one.
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
    FileMeta* const copy = copies.get(0);
    EXPECT_STREQ(copy->path.c_str(), "/x/a");
    EXPECT_EQ(copy->date, 0U) << "the date stays as it was";
    EXPECT_EQ(copy->partHashes, a.partHashes);
}

// The pages of the formats cover the network formats.
TEST(MetaList, ServersHaveAUsersNetworkFormAndPassingAddressesAreNotSaved) {
    UserMeta user;
    user.id = stringToIp("1.2.3.4");
    user.port = 4662;
    ServerMeta server;  // discards the 16 bytes of the hash
    EXPECT_TRUE(readNetwork(server, networkForm(user)));
    EXPECT_THAT(namesOf(server), ElementsAre("ping", "users", "files"));
    EXPECT_EQ(networkForm(server).substr(0, 22), networkForm(user).substr(0, 22));
    user.id = highestLowId + 1;
    EXPECT_EQ(diskForm(user).substr(0, 6), le32(highestLowId + 1) + le16(4662));
    user.id = highestLowId;
    EXPECT_EQ(diskForm(user).substr(0, 6), std::string(6, 0));
}

TEST(ServerMeta, RatingFollowsPreferenceAndPingAndIsForgotten) {
    ServerMeta server;
    const struct {
        u32 pref;
        i32 ping;
        u32 rating;
    } cases[] = {{1, 50, 3099950}, {2, 50, 1099950}, {3, 50, 9099950},    {0, 1, 0},
                 {0, -5, 0},       {0, 2, 2099998},  {1, 100001, 2999999}};
    server.history = 4;
    for (const auto& c : cases) {
        server.setPref(c.pref);
        server.setPing(c.ping);
        EXPECT_EQ(server.rating, c.rating) << c.pref << ", " << c.ping;
    }
    EXPECT_EQ(server.history, 0U);
    i4_string name;
    server.setAddress("1.2.3.4", 4661);
    EXPECT_STREQ(server.getName(name), "1.2.3.4");
    server.setName("Home");
    EXPECT_STREQ(server.getName(name), "Home");

    // Reading drops the measurements of an earlier run, but keeps the preference and the count of unanswered
    // pings.
    server.setCounts(10, 20);
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
    EXPECT_EQ(list.find(2, 20, "b"), b);
    EXPECT_EQ(list.find(2, 20, "B"), nullptr);
    EXPECT_EQ(list.find(hashOf(2)), b);

    // A record that gets the key of another is listed under it.
    list.change(a, [&](FileMeta& file) {
        file.copyFrom(b);
        file.date = 20;
    });
    EXPECT_EQ(list.find(hashOf(2)), a);
    EXPECT_EQ(list.find(2, 20, "b"), a);
    EXPECT_EQ(list.find(hashOf(1)), nullptr);
    EXPECT_EQ(list.find(1, 10, "a"), nullptr);

    // A record that is listed twice is removed once at a time.
    list.add(a);
    EXPECT_TRUE(list.remove(a));
    EXPECT_EQ(list.find(hashOf(2)), b);
    list.sort([](const Meta*, const Meta*) { return true; });
    EXPECT_THAT(list.snapshot(), ElementsAre(a, twin, b));
    EXPECT_EQ(list.find(hashOf(2)), a);

    // A record that was changed directly isn't found by its old key, but can still be removed.
    a->hash = hashOf(9);
    EXPECT_EQ(list.find(hashOf(2)), twin);
    EXPECT_TRUE(list.remove(a));
    list.clear();
    EXPECT_EQ(list.find(hashOf(2)), nullptr);
    for (FileMeta* file : {a, b, twin}) list.add(file);
}

TEST(FileList, OfOneHashTheFirstIsAddedAndTheLastStays) {
    Owned<FileList> list;
    FileMeta* const unknown[] = {newFile("x"), newFile("y")};
    FileMeta* const last = newFile("a", 1, 30, hashOf(1));
    EXPECT_FALSE(list.addUnique(newFile("a", 1, 10, hashOf(1))));
    EXPECT_TRUE(list.addUnique(last));
    for (FileMeta* file : {unknown[0], unknown[1], last}) list.add(file);
    list.deleteRepeated();
    EXPECT_THAT(list.snapshot(), ElementsAre(unknown[0], unknown[1], last));
}

TEST(ServerList, AddressesAreListedOnceAndUsersFoundByHash) {
    Owned<ServerList> list;
    const auto find = [&](const char* ip, u32 port) {
        const i4_guard guard(list);
        return list.find(stringToIp(ip), port);
    };
    auto* first = new ServerMeta;
    first->setAddress("1.2.3.4", 4661);
    EXPECT_TRUE(list.addIfNew(std::unique_ptr<ServerMeta>(first)));
    ServerMeta same;
    same.setAddress("1.2.3.4", 4661);
    EXPECT_FALSE(list.addIfNew(copyOf(same)));
    same.setPing(30);
    list.addOrUpdate(&same);
    EXPECT_EQ(first->ping, 30);
    for (const char* ip : {"1.2.3.5", "0.0.0.0"}) {
        same.setAddress(ip, 4661);
        list.addOrUpdate(&same);
    }
    EXPECT_EQ(list.count(), 2U);
    EXPECT_NE(list.get(1), &same);
    list.change(first, [](ServerMeta& server) { server.setAddress("5.6.7.8", 1); });
    EXPECT_EQ(find("5.6.7.8", 1), first);
    EXPECT_EQ(find("1.2.3.4", 4661), nullptr);

    Owned<UserList> users;
    auto* user = new UserMeta;
    users.add(user);
    users.change(user, [](UserMeta& changed) { changed.hash = hashOf(1); });
    EXPECT_EQ(users.find(hashOf(1)), user);
}

// Quadratic work takes minutes here instead of an instant.
TEST(FileList, FortyThousandAreAddedAndFoundAtOnce) {
    Owned<FileList> list;
    const auto hashAt = [](u32 i) {
        MD4Hash hash = hashOf(1);  // equal at the front, as a stranger would choose them
        hash.bytes[14] = static_cast<u8>(i >> 8);
        hash.bytes[15] = static_cast<u8>(i);
        return hash;
    };
    for (u32 i = 0; i < 40000; ++i) EXPECT_FALSE(list.addUnique(newFile("same", i, 5, hashAt(i))));
    for (u32 i = 0; i < 40000; ++i) ASSERT_EQ(list.find(i, 5, "same"), list.find(hashAt(i)));
}

TEST(MetaFiles, AListComesBackAsItWasOrAsFarAsItIsSound) {
    CapturedLog log;
    const TemporaryDirectory folder;
    const std::string path = folder.file("known.met");
    Owned<FileList> list;
    StateFiles files(systemDisk(), log);
    EXPECT_EQ(files.load(list, path.c_str()), LoadResult::missing);
    EXPECT_EQ(log.take(), "");
    FileMeta* file = newFile("a", 3, 0x01020304, hashOf(7));
    file->partHashes = {hashOf(8), hashOf(9)};
    file->path = "/not/saved";
    list.add(file);
    const std::string record = le32(0x01020304) + std::string(16, 7) + le16(2) + std::string(16, 8) +
                               std::string(16, 9) + le32(2) + "\2" + text16("\1") + text16("a") + "\3" +
                               text16("\2") + le32(3);
    // A path may be typed in another system's style; and loading adds to the list.
    const std::string typed = folder.path() + "\\known.met";
    EXPECT_EQ(list.save(systemDisk(), typed.c_str()), "");
    EXPECT_EQ(contentOf(path), "\x0E" + le32(1) + record);
    EXPECT_EQ(list.load(systemDisk(), typed.c_str()), LoadResult::whole);
    EXPECT_EQ(diskForm(list), "\x0E" + le32(2) + record + record);

    // The intact records of a damaged file are kept, and the file is set aside.
    log.setVerbose(true);
    const std::string damaged = "\x0E" + le32(3) + record + record + record.substr(0, 70);
    writeFile(path, damaged);
    EXPECT_EQ(files.load(list, path.c_str()), LoadResult::damaged);
    EXPECT_EQ(log.take(),
              "ERROR: Meta::fromDisk()\nmeta #:3, n=2\nERROR: MetaList::fromDisk()\n"
              "Error loading: " +
                  path + "\n");
    EXPECT_EQ(list.count(), 4U);
    EXPECT_EQ(contentOf(path + ".bad"), damaged);
    EXPECT_FALSE(exists(path));

    // Another first byte, an empty file, and a count without records. A count with its top bit set means
    // none.
    const std::pair<std::string, LoadResult> others[] = {{"\x0D" + le32(0), LoadResult::damaged},
                                                         {"", LoadResult::damaged},
                                                         {"\x0E" + le32(0x7FFFFFFF), LoadResult::damaged},
                                                         {"\x0E" + le32(0xFFFFFFFF), LoadResult::whole}};
    for (const auto& [content, result] : others) {
        writeFile(path, content);
        EXPECT_EQ(list.load(systemDisk(), path.c_str()), result);
    }
    EXPECT_EQ(list.count(), 4U);
}

}  // namespace
