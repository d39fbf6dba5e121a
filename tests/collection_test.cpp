// Collections: their file, how they are recognised among shared files, and what they ask for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "download/Collection.h"
#include "i4min/file/file.h"
#include "import/ImporterList.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Process.h"
#include "tests/support/damage.h"
#include "tests/support/import_files.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string contentOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> namesIn(const Collection& collection) {
    std::vector<std::string> names;
    for (const FileMeta* member : collection.snapshot()) names.emplace_back(member->getName());
    return names;
}

void addMember(Collection& collection, const char* name, u8 hash) {
    auto member = std::make_unique<FileMeta>();
    member->setName(name);
    member->setInt(TAG_SIZE, 1000);
    member->hash.bytes.fill(hash);
    collection.add(member.release());
}

class Collections : public testing::Test {
  protected:
    void fill(Collection& collection) {
        collection.self.date = 0x01020304;
        collection.self.hash.bytes.fill(0xAA);
        collection.self.partHashes.resize(2);
        collection.self.setName("Set");
        addMember(collection, "one", 1);
        addMember(collection, "../two", 2);
    }

    TemporaryDirectory home_;
    const std::string path_ = home_.file("any name");
    CapturedLog log_;
};

TEST_F(Collections, TheFileByteForByteAndBack) {
    Collection saved;
    fill(saved);
    ASSERT_TRUE(saved.save(path_.c_str()));
    const auto member = [](const std::string& name, char hash) {
        return std::string(4, 0) + std::string(16, hash) + std::string("\0\0\2\0\0\0\2\1\0\1", 10) +
               static_cast<char>(name.size()) + '\0' + name + std::string("\3\1\0\2", 4) +
               littleEndian32(1000);
    };
    EXPECT_EQ(contentOf(path_), std::string("\x0A\0collectio2", 12) + std::string("\4\3\2\1", 4) +
                                    std::string(16, '\xAA') + std::string("\2\0", 2) + std::string(32, 0) +
                                    std::string("\1\0\0\0\2\1\0\1\3\0Set", 13) + "\x0E" + littleEndian32(2) +
                                    member("one", 1) + member("../two", 2));

    Collection loaded;
    addMember(loaded, "old", 9);
    ASSERT_EQ(loaded.load(path_.c_str()), LoadResult::whole);
    EXPECT_STREQ(loaded.self.getName(), "Set");
    EXPECT_EQ(loaded.self.date, 0x01020304u);
    EXPECT_EQ(loaded.self.hash, saved.self.hash);
    EXPECT_EQ(loaded.self.partHashes.size(), 2u);
    EXPECT_THAT(namesIn(loaded), ElementsAre("one", "../two"));
    EXPECT_NE(loaded.find(saved.snapshot()[1]->hash), nullptr);

    // The magic word is for those who look for collections.
    std::string other = contentOf(path_);
    other.replace(2, 10, "collectio1");
    writeFile(path_, other);
    EXPECT_EQ(loaded.load(path_.c_str()), LoadResult::whole);
}

TEST_F(Collections, FilesThatDontReadWhole) {
    Collection collection;
    fill(collection);
    ASSERT_TRUE(collection.save(path_.c_str()));
    const std::string good = contentOf(path_);
    EXPECT_EQ(collection.load(home_.file("gone").c_str()), LoadResult::missing);
    EXPECT_THAT(namesIn(collection), IsEmpty());
    EXPECT_EQ(collection.load(home_.path().c_str()), LoadResult::damaged);

    std::string manyMembers = good;
    manyMembers.replace(good.find('\x0E') + 1, 4, littleEndian32(0x7FFFFFFF));
    std::string manyParts = good;
    manyParts.replace(32, 2, "\xFF\xFF");
    std::string manyTags = good;
    manyTags.replace(66, 4, littleEndian32(0x7FFFFFFF));
    for (const std::string& bytes : {manyMembers, manyParts, manyTags, good.substr(0, 13), std::string()}) {
        writeFile(path_, bytes);
        EXPECT_EQ(collection.load(path_.c_str()), LoadResult::damaged);
    }
    writeFile(path_, manyMembers);
    EXPECT_EQ(collection.load(path_.c_str()), LoadResult::damaged);
    EXPECT_THAT(namesIn(collection), ElementsAre("one", "../two")) << "what was read stays";

    std::filesystem::resize_file(path_, Collection::maxFile + 1);
    EXPECT_EQ(collection.load(path_.c_str()), LoadResult::damaged);
    EXPECT_THAT(namesIn(collection), IsEmpty()) << "too large to be looked at";
    EXPECT_FALSE(collection.save("/nowhere/at/all"));
    EXPECT_THAT(log_.take(), HasSubstr("Couldn't save /nowhere/at/all"));
}

TEST_F(Collections, DamageIsReadInBounds) {
    Collection good;
    fill(good);
    ASSERT_TRUE(good.save(path_.c_str()));
    const std::string bytes = contentOf(path_);
    sweepDamage(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()),
                [](std::span<const std::uint8_t> damaged) {
                    std::vector<u8> copy(damaged.begin(), damaged.end());
                    i4_ram_file_class stream(copy.data(), static_cast<u32>(copy.size()), 0);
                    Collection collection;
                    collection.read(stream);
                });
}

TEST_F(Collections, TheStoredRecordSpeaksForASharedCollection) {
    const ImporterList importers;
    const auto freshRecord = [] {
        auto meta = std::make_unique<FileMeta>();
        meta->date = 5;
        meta->hash.bytes.fill(0x55);
        meta->partHashes.resize(7);
        return meta;
    };
    Collection collection;
    fill(collection);
    collection.self.setText(TAG_TYPE, "Col");
    ASSERT_TRUE(collection.save(path_.c_str()));
    const std::string good = contentOf(path_);

    auto meta = freshRecord();
    EXPECT_TRUE(importers.importFile(*meta, path_.c_str(), "any name"));
    EXPECT_EQ(meta->date, 0x01020304u);
    EXPECT_EQ(meta->hash, collection.self.hash);
    EXPECT_EQ(meta->partHashes.size(), 2u);
    EXPECT_STREQ(meta->getName(), "Set");
    EXPECT_STREQ(meta->getText(TAG_TYPE), "Col");
    EXPECT_EQ(meta->findTag(TAG_SIZE), nullptr);
    EXPECT_EQ(meta->path, path_.c_str());

    // One that was never hashed says so: its hash is zero.
    std::string unhashed = good;
    unhashed.replace(16, 16, std::string(16, 0));
    writeFile(path_, unhashed);
    meta = freshRecord();
    EXPECT_TRUE(importers.importFile(*meta, path_.c_str(), "any name"));
    EXPECT_TRUE(meta->hash.isZero());

    // A damaged record leaves the file what it is to everybody else.
    log_.verbose = 1;
    std::string lying = good;
    lying.replace(32, 2, "\xFF\xFF");
    for (const std::string& bytes : {lying, good.substr(0, 12), good.substr(0, 70)}) {
        writeFile(path_, bytes);
        log_.take();
        meta = freshRecord();
        EXPECT_TRUE(importers.importFile(*meta, path_.c_str(), "any name"));
        EXPECT_THAT(log_.take(), HasSubstr("Exception in import\n"));
        EXPECT_EQ(meta->date, 5u);
        EXPECT_EQ(meta->hash, freshRecord()->hash);
        EXPECT_EQ(meta->partHashes.size(), 7u);
        EXPECT_STREQ(meta->getName(), "any name");
        EXPECT_EQ(meta->getSize(), bytes.size());
    }
    writeFile(path_, "\x0A" + std::string(1, 0) + "collectio1" + good.substr(12));
    meta = freshRecord();
    EXPECT_TRUE(importers.importFile(*meta, path_.c_str(), "any name"));
    EXPECT_EQ(meta->getText(TAG_TYPE), nullptr);
}

TEST_F(Collections, StoringSaysWhatTheFileIs) {
    const std::string incoming = home_.file("incoming");
    preferences.setIncoming(incoming.c_str());
    Collection collection;
    fill(collection);
    ASSERT_TRUE(collection.store());
    const std::string stored = incoming + "/Set";
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

    for (const char* hostile : {"../../escaped", "/escaped", "..", ".", "", "a/b\\..", "esc\x1B\x63"}) {
        collection.self.setName(hostile);
        ASSERT_TRUE(collection.store()) << hostile;
        const std::string file = collection.self.path.c_str();
        EXPECT_EQ(std::filesystem::path(file).parent_path(), incoming) << hostile;
        EXPECT_TRUE(std::filesystem::is_regular_file(file)) << hostile;
        EXPECT_EQ(file.find('\x1B'), std::string::npos);
    }
    collection.self.setName(std::string(70, 'n').c_str());
    collection.self.removeTag(TAG_NAME);
    EXPECT_TRUE(collection.store()) << "without a name";
    collection.self.setName(std::string(1000, 'n').c_str());
    EXPECT_TRUE(collection.store()) << "with a name that no file can have";
    EXPECT_FALSE(std::filesystem::exists(home_.file("escaped")));
}

std::vector<std::shared_ptr<FileMeta>> asked;

TEST_F(Collections, FetchingAsksForCopiesOfTheMembers) {
    MessageDuties duties;
    duties.handlers[MESSAGE_DOWNLOAD] = [](QArgument& argument) {
        asked.push_back(std::get<std::shared_ptr<FileMeta>>(argument));
    };
    MessageQ queue(duties);
    {
        Collection collection;
        collection.fetchAll(queue);
        EXPECT_FALSE(queue.process()) << "an empty one asks for nothing";
        fill(collection);
        collection.fetchAll(queue);
    }
    while (queue.process()) {
    }
    ASSERT_EQ(asked.size(), 2u);
    EXPECT_STREQ(asked[0]->getName(), "one");
    EXPECT_EQ(asked[0]->getSize(), 1000u);
    EXPECT_EQ(asked[1]->hash.bytes[15], 2);
    asked.clear();
}

}  // namespace
