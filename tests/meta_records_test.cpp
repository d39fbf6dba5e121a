// Records and lists of records: their bytes, their files, their rules and their indexes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "meta/FileList.h"
#include "meta/ServerList.h"
#include "meta/UserList.h"
#include "meta/address.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/bytes.h"
#include "tests/support/damage.h"
#include "tests/support/files.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

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

ServerMeta* newServer(const char* ip, u32 port) {
    auto* server = new ServerMeta;
    server->setAddress(ip, port);
    return server;
}

template <class Record>
Bytes diskForm(Record& record) {
    return written([&](i4_file& file) { EXPECT_TRUE(record.toDisk(file)); });
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

std::vector<std::string> namesOf(const Meta& record) {
    std::vector<std::string> names;
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = record.getTags().next(c);) {
        names.emplace_back(tag->displayName() ? tag->displayName() : "(null)");
    }
    return names;
}

TEST(Meta, TagsKeepTheirOrderAndTheFirstOfANameCounts) {
    Meta record;
    EXPECT_EQ(networkForm(record), (Bytes{0, 0, 0, 0}));
    char text[8] = "text";
    EXPECT_EQ(record.getFloat("f"), 0.0F);
    EXPECT_EQ(record.getValue(TAG_SIZE), nullptr);
    EXPECT_STREQ(record.printable("x", text, sizeof text), "");
    record.setText(TAG_NAME, "one");
    record.setInt(TAG_SIZE, 5);
    record.setInt("users", 7);
    record.setText(TAG_NAME, "two");
    EXPECT_FALSE(record.addTag("users", META_TAG_INT));
    EXPECT_TRUE(record.addTag("files", META_TAG_INT));
    EXPECT_EQ(record.findTag(TAG_SIZE)->id(), TAG_SIZE);

    // From the network a record adds to what is there, from disk it replaces it.
    const Bytes more{2, 0, 0, 0, 2, 1, 0, 1, 3, 0, 'n', 'e', 'w', 3, 1, 0, 'n', 9, 0, 0, 0};
    EXPECT_TRUE(readNetwork(record, more));
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "Size", "users", "files", "Name", "(null)"));
    EXPECT_STREQ(record.getText(TAG_NAME), "two");
    EXPECT_TRUE(record.removeTag(TAG_NAME));
    EXPECT_STREQ(record.getText(TAG_NAME), "new");
    EXPECT_EQ(record.findTag("n"), nullptr) << "a tag without a name is passed over";
    EXPECT_TRUE(readDisk(record, more));
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "(null)"));

    Meta copy;
    copy.setInt("old", 1);
    copy.copyFrom(&record);
    copy.copyFrom(nullptr);
    EXPECT_EQ(networkForm(copy), more);
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
    EXPECT_EQ(record.getInt(TAG_NAME), number);
    EXPECT_EQ(record.getInt(TAG_SIZE), 0U);
    EXPECT_EQ(record.getInt("flag"), 0U);
    EXPECT_EQ(record.getFloat("half"), 0.5F);
    EXPECT_EQ(record.getInt("half"), 0x3F000000U);
    EXPECT_FALSE(record.setTagValue(tagTable[TAG_SIZE].wireName, &number, META_TAG_INT));
    // Set, each takes the type of its name and keeps its place.
    record.setText(TAG_NAME, "name");
    record.setInt(TAG_SIZE, 3);
    EXPECT_THAT(namesOf(record), ElementsAre("Name", "Size", "flag", "half"));
    EXPECT_STREQ(record.getText(TAG_NAME), "name");
    EXPECT_EQ(record.getInt(TAG_SIZE), 3U);
}

TEST(Meta, ADamagedRecordKeepsWhatWasRead) {
    CapturedLog log;
    log.verbose = 1;
    Meta record;
    const Bytes second{2, 0, 0, 0, 3, 1, 0, 2, 1, 0, 0, 0, 3, 1, 0};
    EXPECT_FALSE(readDisk(record, second));
    EXPECT_EQ(log.take(), "ERROR: Meta::fromDisk()\n");
    EXPECT_THAT(namesOf(record), ElementsAre("Size"));
    EXPECT_FALSE(readNetwork(record, second));
    EXPECT_EQ(log.take(), "ERROR: Meta::fromNetwork()\n");
    // No count: no message. A count with its top bit set: nothing is read.
    EXPECT_FALSE(readDisk(record, {1, 0, 0}));
    EXPECT_TRUE(readDisk(record, {0xFF, 0xFF, 0xFF, 0xFF, 1}));
    EXPECT_EQ(log.take(), "");
}

TEST(MetaList, RecordsComeAndGoByPointer) {
    FileList list;
    FileList other;
    FileMeta a, b, c;
    for (FileMeta* file : {&a, &b, &a, &c}) list.add(file);
    list.add(nullptr);
    EXPECT_EQ(list.count(), 4U);
    EXPECT_EQ(list.get(4), nullptr);
    other.addAll(list);
    EXPECT_TRUE(list.remove(&a));
    EXPECT_THAT(list.snapshot(), ElementsAre(&b, &a, &c));
    // Each occurrence in the other takes one away.
    FileList gone;
    gone.add(&a);
    gone.add(&c);
    other.removeAll(&gone);
    EXPECT_THAT(other.snapshot(), ElementsAre(&b, &a));
    other.removeAll(&other);
    EXPECT_THAT(other.snapshot(), IsEmpty());
}

TEST(MetaList, SearchCopyAndPrint) {
    struct Large final : MetaMatcher {
        bool matches(const Meta& record) const override { return record.getInt(TAG_SIZE) > 10; }
    };
    Owned<FileList> list;
    for (const u32 size : {20U, 5U, 30U, 0xFFFFFFFFU}) list.add(newFile("a", size, 7, hashOf(1)));
    FileList two, all;
    list.search(Large(), two, 2);
    EXPECT_THAT(two.snapshot(), ElementsAre(list.get(0), list.get(2)));
    list.search(Large(), all, 0);
    EXPECT_EQ(all.count(), 3U);

    Owned<FileList> copy;
    two.remove(list.get(2));
    list.get(0)->partHashes.push_back(hashOf(5));
    list.get(0)->path = "/x/a";
    copy.copyFrom(&two);
    copy.copyFrom(nullptr);
    ASSERT_EQ(copy.count(), 1U);
    const FileMeta* file = copy.find(hashOf(1));
    EXPECT_NE(file, list.get(0));
    EXPECT_STREQ(file->path.c_str(), "/x/a");
    EXPECT_EQ(file->date, 0U) << "the date stays as it was";
    copy.get(0)->copyFrom(list.get(0));
    EXPECT_THAT(file->partHashes, ElementsAre(hashOf(5), hashOf(5)));
    const auto tagsAlone = FileMeta::withTagsOf(*file);
    EXPECT_STREQ(tagsAlone->getName(), "a");
    EXPECT_TRUE(tagsAlone->hash.isZero());

    CapturedLog log;
    two.add(list.get(3));
    two.print();
    EXPECT_EQ(log.take(), "\nMeta (0)\nName: a\nSize: 20\n\nMeta (1)\nName: a\nSize: -1\n");
}

TEST(MetaList, NetworkFormsOfAllThreeRecordsStartAlike) {
    FileMeta file;
    file.hash = hashOf(1);
    file.partHashes.push_back(hashOf(9));
    file.date = 8;
    file.setInt(TAG_SIZE, 1000);
    Bytes bytes(16, 1);
    bytes.insert(bytes.end(), {0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 3, 1, 0, 2, 0xE8, 3, 0, 0});
    EXPECT_EQ(networkForm(file), bytes);

    UserMeta user;
    user.hash = hashOf(1);
    user.id = stringToIp("1.2.3.4");
    user.port = 4662;
    user.serverIp = user.serverPort = 77;
    user.setInt(TAG_SIZE, 1000);
    const Bytes address{1, 2, 3, 4, 0x36, 0x12};
    std::copy(address.begin(), address.end(), bytes.begin() + 16);
    EXPECT_EQ(networkForm(user), bytes);
    UserMeta again;
    EXPECT_TRUE(readNetwork(again, bytes));
    EXPECT_EQ(networkForm(again), bytes);

    ServerMeta read;  // readers drop the 16 bytes
    EXPECT_TRUE(readNetwork(read, bytes));
    EXPECT_THAT(namesOf(read), ElementsAre("Size", "ping", "users", "files"));
    ServerMeta server;
    server.setAddress("1.2.3.4", 4662);
    server.setInt(TAG_SIZE, 1000);
    EXPECT_TRUE(read.sameServer(&server));
    std::fill_n(bytes.begin(), 16, std::uint8_t{0});
    EXPECT_EQ(networkForm(server), bytes);

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
    EXPECT_EQ(viewOf(bytes), "\x0E" + le32(1) + le32(0x01020304) + std::string(16, 7) + le16(2) +
                                 std::string(16, 8) + std::string(16, 9) + le32(2) + "\2" + text16("\1") +
                                 text16("a") + "\3" + text16("\2") + le32(3));
    EXPECT_EQ(file->partHashesSize(), 34U);

    Owned<FileList> again;
    EXPECT_TRUE(readDisk(again, bytes));
    EXPECT_EQ(diskForm(again), bytes);
    EXPECT_TRUE(again.get(0)->matches(3, 0x01020304, "a"));
    again.get(0)->removeTag(TAG_NAME);
    EXPECT_FALSE(again.get(0)->matches(3, 0x01020304, ""));
}

TEST(ServerMeta, RatingFollowsPreferenceAndPing) {
    ServerMeta server;
    server.history = 4;
    server.setPing(0);
    EXPECT_EQ(server.history, 4U);
    const struct {
        u32 pref;
        i32 ping;
        u32 rating;
    } cases[] = {{0, 50, 2099950}, {1, 50, 3099950}, {2, 50, 1099950}, {3, 50, 9099950},
                 {0, 0, 0},        {0, 1, 0},        {0, -5, 0},       {0, 100001, 1999999}};
    for (const auto& c : cases) {
        server.setPref(c.pref);
        server.setPing(c.ping);
        EXPECT_EQ(server.rating, c.rating) << c.pref << ", " << c.ping;
        EXPECT_EQ(server.getInt(TAG_PING), static_cast<u32>(c.ping));
    }
    EXPECT_EQ(server.history, 0U);

    i4_string name;
    server.setAddress("1.2.3.4", 4661);
    EXPECT_STREQ(server.getName(name), "1.2.3.4");
    server.setName("Home");
    EXPECT_STREQ(server.getName(name), "Home");
    EXPECT_FALSE(server.setAddress("nowhere", 4661));
    EXPECT_FALSE(server.sameServer(&server)) << "no address is like no other";
}

TEST(ServerMeta, ReadingForgetsWhatAnEarlierRunMeasured) {
    ServerMeta server;
    server.setAddress("1.2.3.4", 4661);
    server.setPing(50);
    server.setCounts(10, 20);
    server.setPref(1);
    server.history = 6;
    ServerMeta again;
    EXPECT_TRUE(readDisk(again, diskForm(server)));
    EXPECT_EQ(again.pref, 1U);
    EXPECT_EQ(again.history, 6U) << "the field was saved, not the older tag";
    EXPECT_EQ(again.ping, 1);
    EXPECT_EQ(again.rating, 0U);
    EXPECT_EQ(again.getInt(TAG_PING) + again.getUsers() + again.getFiles(), 0U);
}

TEST(UserMeta, WhoIsTheSameUserAndWhatOfThemIsSaved) {
    const u32 high = 0x01000000;
    const u32 low = 0x00FFFFFF;
    const struct {
        u32 id, server, otherId, otherServer;
        u8 hash, otherHash;
        bool same;
    } cases[] = {{high, 1, high, 2, 1, 2, true}, {low, 1, low, 1, 1, 2, true},  {low, 1, low, 2, 1, 1, true},
                 {low, 1, low, 2, 1, 2, false},  {low, 1, low, 2, 0, 0, false}, {5, 1, high, 2, 1, 1, true}};
    for (const auto& c : cases) {
        UserMeta one, other;
        one.id = c.id;
        one.serverIp = c.server;
        one.hash = hashOf(c.hash);
        other.id = c.otherId;
        other.serverIp = c.otherServer;
        other.hash = hashOf(c.otherHash);
        EXPECT_EQ(one.sameUser(&other), c.same) << &c - cases;
        EXPECT_FALSE(one.sameUser(nullptr));
    }
    // An address that will not last is not saved.
    UserMeta user;
    user.port = 4662;
    user.id = high;
    EXPECT_EQ(viewOf(diskForm(user)), le32(high) + le16(4662) + std::string(20, 0));
    user.id = low;
    EXPECT_EQ(diskForm(user), Bytes(26, 0));
}

TEST(Address, TextAndNumber) {
    EXPECT_STREQ(ipToString(0xFF030201).c_str(), "1.2.3.255");
    EXPECT_EQ(stringToIp("1.2.3.4"), 0x04030201U);
    EXPECT_EQ(stringToIp("255.0.0.1\n"), 0x010000FFU);
    for (const char* bad : {"", "1.2.3.", "1.2.3.256", "1.2.3.4.5", "1.2.3.4.example", "a.b.c.d", "-1.2.3.4",
                            "1..2.3", "99999999999.1.1.1", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(stringToIp(bad), 0U) << (bad ? bad : "null");
    }
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

TEST(FileList, OfOneHashTheFirstIsAddedAndTheLastStays) {
    Owned<FileList> list;
    FileMeta* const unknown[] = {newFile("x"), newFile("y")};
    FileMeta* const other = newFile("b", 1, 10, hashOf(2));
    FileMeta* const last = newFile("a", 1, 30, hashOf(1));
    EXPECT_FALSE(list.addUnique(newFile("a", 1, 10, hashOf(1))));
    EXPECT_TRUE(list.addUnique(last));
    EXPECT_EQ(list.count(), 1U);
    for (FileMeta* file : {unknown[0], other, newFile("a", 1, 0, hashOf(1)), unknown[1], last}) {
        list.add(file);
    }
    list.deleteRepeated();
    EXPECT_THAT(list.snapshot(), ElementsAre(unknown[0], other, unknown[1], last));
    EXPECT_EQ(list.find(hashOf(1)), last);
}

TEST(ServerList, AddressesAreListedOnceAndUsersFoundByHash) {
    Owned<ServerList> list;
    const auto find = [&](const char* ip, u32 port) {
        const i4_guard guard(list);
        return list.find(stringToIp(ip), port);
    };
    ServerMeta* first = newServer("1.2.3.4", 4661);
    EXPECT_FALSE(list.addIfNew(first));
    const std::unique_ptr<ServerMeta> same(newServer("1.2.3.4", 4661));
    EXPECT_TRUE(list.addIfNew(same.get()));
    same->setName("new");
    same->setPing(30);
    list.addOrUpdate(same.get());
    EXPECT_EQ(list.count(), 1U);
    EXPECT_STREQ(first->getText(TAG_NAME), "new");
    EXPECT_EQ(first->ping, 30);
    same->setAddress("1.2.3.4", 4662);
    list.addOrUpdate(same.get());
    EXPECT_EQ(list.count(), 2U);
    EXPECT_NE(list.get(1), same.get());
    list.addOrUpdate(nullptr);
    same->setAddress("0.0.0.0", 4661);
    list.addOrUpdate(same.get());
    EXPECT_EQ(list.count(), 2U);
    list.change(first, [](ServerMeta& server) { server.setAddress("5.6.7.8", 1); });
    EXPECT_EQ(find("5.6.7.8", 1), first);
    EXPECT_EQ(find("1.2.3.4", 4661), nullptr);

    Owned<UserList> users;
    auto* user = new UserMeta;
    users.add(user);
    EXPECT_EQ(users.find(hashOf(1)), nullptr);
    users.change(user, [](UserMeta& changed) { changed.hash = hashOf(1); });
    EXPECT_EQ(users.find(hashOf(1)), user);
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
    for (u32 i = 0; i < 100000; ++i) {
        const FileMeta* file = list.find(i, 5, "same");
        ASSERT_TRUE(file);
        ASSERT_EQ(file->getSize(), i);
        ASSERT_EQ(list.find(file->hash), file);
    }
}

TEST(MetaFiles, AListComesBackAsItWas) {
    CapturedLog log;
    const TemporaryDirectory folder;
    const std::string file = folder.file("server.met");
    Owned<ServerList> list;
    writeFile(file, std::string("\x0E\1\0\0\0\1\2\3\4\x35\x12\0\0\0\0", 15));
    EXPECT_EQ(list.load(file.c_str()), LoadResult::whole);
    ASSERT_EQ(list.count(), 1U);
    EXPECT_EQ(list.get(0)->port, 4661U);
    EXPECT_STREQ(ipToString(list.get(0)->ip).c_str(), "1.2.3.4");
    EXPECT_EQ(list.get(0)->rating, 0U);
    EXPECT_TRUE(list.save(file.c_str()));
    EXPECT_EQ(contentOf(file), viewOf(diskForm(list)));

    // A load adds; and a path may be typed the way of another system.
    std::string typed = file;
    std::replace(typed.begin(), typed.end(), '/', '\\');
    EXPECT_EQ(list.load(typed.c_str()), LoadResult::whole);
    EXPECT_EQ(list.count(), 2U);
    EXPECT_TRUE(list.save(typed.c_str()));
    EXPECT_EQ(contentOf(file), viewOf(diskForm(list)));
    EXPECT_EQ(log.take(), "");
}

TEST(MetaFiles, ADamagedFileIsSetAsideAndWhatWasReadStays) {
    CapturedLog log;
    log.verbose = 1;
    const TemporaryDirectory folder;
    const std::string file = folder.file("known.met");
    Owned<FileList> list;
    EXPECT_EQ(list.load(file.c_str()), LoadResult::missing);
    EXPECT_TRUE(list.loadOrSetAside(file.c_str()));
    EXPECT_EQ(log.take(), "");

    Owned<FileList> three;
    for (const char* name : {"a", "b", "c"}) three.add(newFile(name));
    Bytes bytes = diskForm(three);
    bytes.resize(bytes.size() - 3);
    writeFile(file, viewOf(bytes));
    EXPECT_FALSE(list.loadOrSetAside(file.c_str()));
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
        EXPECT_EQ(empty.load(file.c_str()), result);
        EXPECT_EQ(empty.count(), 0U);
    }
    EXPECT_EQ(log.take(), "meta #:2147483647, n=0\nERROR: MetaList::fromDisk()\n");
    log.verbose = 0;
    Owned<UserList> users;
    EXPECT_FALSE(readNetwork(users, {2, 0, 0, 0, 1, 2, 3}));
    EXPECT_EQ(log.take(), "");
    log.verbose = 1;
    EXPECT_FALSE(readNetwork(users, {2, 0, 0, 0, 1, 2, 3}));
    EXPECT_EQ(log.take(), "meta #:2, n=0\nERROR: MetaList::fromNetwork()\n");
}

template <class List>
void sweepList(List& good) {
    const auto read = [](std::span<const std::uint8_t> bytes, StreamForm form) {
        Owned<List> list;
        BytesFile file(bytes);
        try {
            form == StreamForm::disk ? list.fromDisk(file) : list.fromNetwork(file);
        } catch (const i4_err&) {
            EXPECT_LT(bytes.size(), 5U) << "only the first five bytes of a file raise";
        }
        list.print();
        EXPECT_LE(list.count(), 2U);
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

}  // namespace
