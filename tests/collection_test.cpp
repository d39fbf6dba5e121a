// Collections: their file, how they are recognised among shared files, and what they ask for.
#include "download/Collection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "import/ImporterList.h"
#include "tests/support/Downloads.h"
#include "tests/support/damage.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class Collections : public Downloads {
  protected:
    Collections() {
        log.verbose = 1;
        collection.self.date = 0x01020304;
        collection.self.hash.bytes.fill(0xAA);
        collection.self.partHashes.resize(2);
        collection.self.setName("Set");
        addMember("one", 1);
        addMember("../two", 2);
        saved = collection.save(path.c_str()) ? contentOf(path) : "";
    }
    void addMember(const char* name, u8 hash) {
        auto member = std::make_unique<FileMeta>();
        member->setName(name);
        member->setInt(TAG_SIZE, 1000);
        member->hash.bytes.fill(hash);
        collection.add(member.release());
    }
    std::vector<std::string> names() const {
        std::vector<std::string> result;
        for (const FileMeta* member : collection.snapshot()) result.emplace_back(member->getName());
        return result;
    }
    // The file with other bytes from `at` on.
    std::string changed(std::size_t at, const std::string& bytes) const {
        return std::string(saved).replace(at, bytes.size(), bytes);
    }
    LoadResult load(const std::string& bytes) {
        writeFile(path, bytes);
        return collection.load(path.c_str());
    }

    const std::string path = directory.file("any name");
    Collection collection;
    std::string saved;
};

TEST_F(Collections, TheFileThereAndBack) {
    EXPECT_EQ(saved.substr(0, 12), std::string("\x0A\0collectio2", 12));
    collection.self.copyFrom(std::make_unique<FileMeta>().get());
    addMember("old", 9);
    // The magic word is for those who look for collections.
    ASSERT_EQ(load(changed(2, "collectio1")), LoadResult::whole);
    EXPECT_STREQ(collection.self.getName(), "Set");
    EXPECT_EQ(collection.self.date, 0x01020304U);
    EXPECT_EQ(collection.self.hash.bytes[0], 0xAA);
    EXPECT_EQ(collection.self.partHashes.size(), 2U);
    EXPECT_THAT(names(), ElementsAre("one", "../two"));
    EXPECT_FALSE(collection.save("/nowhere/at/all"));
    EXPECT_THAT(log.take(), HasSubstr("Couldn't save /nowhere/at/all"));
}

TEST_F(Collections, FilesThatDontReadWhole) {
    const std::string promised = le32(0x7FFFFFFF);
    const std::string manyMembers = changed(saved.find('\x0E') + 1, promised);
    for (const std::string& bytes :
         {changed(32, "\xFF\xFF"), changed(66, promised), saved.substr(0, 13), std::string()}) {
        EXPECT_EQ(load(bytes), LoadResult::damaged);
        EXPECT_THAT(names(), IsEmpty());
    }
    EXPECT_EQ(load(manyMembers), LoadResult::damaged);
    EXPECT_THAT(names(), ElementsAre("one", "../two")) << "what was read stays";
    std::filesystem::resize_file(path, Collection::maxFile + 1);
    EXPECT_EQ(collection.load(path.c_str()), LoadResult::damaged);
    EXPECT_THAT(names(), IsEmpty()) << "too large to be looked at";
    EXPECT_EQ(collection.load(directory.path().c_str()), LoadResult::damaged);
    EXPECT_EQ(collection.load(directory.file("gone").c_str()), LoadResult::missing);

    sweepDamage(std::span(reinterpret_cast<const std::uint8_t*>(saved.data()), saved.size()),
                [](std::span<const std::uint8_t> damaged) {
                    std::vector<u8> copy(damaged.begin(), damaged.end());
                    i4_ram_file_class stream(copy.data(), static_cast<u32>(copy.size()), 0);
                    Collection().read(stream);
                });
}

// Once the record is read it stands for the file; a damaged one leaves the file what it is to everybody else.
TEST_F(Collections, TheStoredRecordSpeaksForASharedCollection) {
    const ImporterList importers;
    const struct {
        std::string bytes;
        const char* name;
        u32 date;
        u8 hash;
        bool damaged;
    } rows[] = {
        {saved, "Set", 0x01020304, 0xAA, false},
        {changed(16, std::string(16, 0)), "Set", 0x01020304, 0, false},  // never hashed
        {changed(32, "\xFF\xFF"), "any name", 5, 0x55, true},
        {saved.substr(0, 12), "any name", 5, 0x55, true},
        {saved.substr(0, 70), "any name", 5, 0x55, true},
        {changed(2, "collectio1"), "any name", 5, 0x55, false},
    };
    for (const auto& row : rows) {
        FileMeta meta;
        meta.date = 5;
        meta.hash.bytes.fill(0x55);
        meta.partHashes.resize(7);
        writeFile(path, row.bytes);
        log.take();
        EXPECT_TRUE(importers.importFile(meta, path.c_str(), "any name"));
        const bool isRecord = row.date != 5;
        EXPECT_STREQ(meta.getName(), row.name);
        EXPECT_EQ(meta.date, row.date);
        EXPECT_EQ(meta.hash.bytes[15], row.hash);
        EXPECT_EQ(meta.partHashes.size(), isRecord ? 2U : 7U);
        EXPECT_EQ(meta.findTag(TAG_SIZE) == nullptr, isRecord);
        EXPECT_EQ(meta.path, path.c_str());
        EXPECT_EQ(log.take().find("Exception in import\n") != std::string::npos, row.damaged);
    }
}

TEST_F(Collections, StoringSaysWhatTheFileIs) {
    ASSERT_TRUE(collection.store());
    const std::string stored = incoming("Set");
    MD4Hash hash;
    std::vector<MD4Hash> parts;
    ASSERT_EQ(MD4Hash::computeFile(hash, stored.c_str(), parts), HashOutcome::whole);
    EXPECT_EQ(collection.self.hash, hash);
    EXPECT_THAT(collection.self.partHashes, IsEmpty());
    EXPECT_EQ(collection.self.getSize(), std::filesystem::file_size(stored));
    EXPECT_EQ(collection.self.path, stored.c_str());
    Collection again;
    ASSERT_EQ(again.load(stored.c_str()), LoadResult::whole);
    EXPECT_STREQ(again.self.getText(TAG_TYPE), "Col");
    EXPECT_EQ(again.self.hash.bytes[0], 0xAA) << "the hash from before";

    const std::string longest(246, 'n');
    const std::pair<std::string, std::string> names[] = {{"../../escaped", "escaped"},
                                                         {"/escaped", "escaped"},
                                                         {"..", "_"},
                                                         {"a/b\\..", "_"},
                                                         {"esc\x1B\x63", "esc_c"},
                                                         {longest + longest + ".set", longest + ".set"}};
    for (const auto& [name, file] : names) {
        collection.self.setName(name.c_str());
        EXPECT_TRUE(collection.store());
        EXPECT_EQ(collection.self.path, incoming(file).c_str());
        EXPECT_TRUE(std::filesystem::is_regular_file(incoming(file)));
    }
    collection.self.removeTag(TAG_NAME);
    EXPECT_TRUE(collection.store());
    EXPECT_EQ(collection.self.path, incoming("_").c_str());
}

// Copies of the members, so that the collection may go; a member's name leads nowhere else.
TEST_F(Collections, FetchingAsksForTheMembers) {
    const RemoteFile hostile("../../escaped\n", 1000);
    const RemoteFile plain("one", 70'000, 2);
    {
        Collection set;
        set.fetchAll();
        EXPECT_FALSE(messageQ.process()) << "an empty one asks for nothing";
        for (const RemoteFile* file : {&hostile, &plain}) {
            auto member = std::make_unique<FileMeta>();
            member->copyFrom(&file->record);
            set.add(member.release());
        }
        set.fetchAll();
    }
    EXPECT_EQ(handleMessages(), 2);
    EXPECT_TRUE(dlPool.find(plain.record.hash));
    const Ref<Download> download = dlPool.find(hostile.record.hash);
    ASSERT_TRUE(download);
    dlPool.tick(500);
    download->tick(1);
    give(*download, hostile);
    waitUntilGone(download);
    EXPECT_EQ(contentOf(incoming("escaped_")), hostile.bytes);
}

}  // namespace
