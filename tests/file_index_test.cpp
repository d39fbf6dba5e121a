// The index of published files, against a plain walk over the same files.
#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "i4min/memory/debug_build.h"
#include "index/FileIndex.h"
#include "meta/FileMeta.h"
#include "tests/support/bytes.h"
#include "tests/support/damage.h"

namespace {

MD4Hash hashOfFile(u32 number) {
    MD4Hash hash;
    hash.bytes[15] = 1;
    std::memcpy(hash.bytes.data(), &number, sizeof number);
    return hash;
}
u32 numberOf(const MD4Hash& hash) {
    u32 number = 0;
    std::memcpy(&number, hash.bytes.data(), sizeof number);
    return number;
}

Bytes tagsOf(const Meta& meta) {
    return written([&](i4_file& stream) { meta.Meta::toNetwork(stream); });
}

FileRecord recordOf(const Bytes& bytes) {
    ByteReader in(bytes);
    FileRecord record;
    EXPECT_TRUE(record.read(in));
    return record;
}
FileRecord recordOf(const Meta& meta) { return recordOf(tagsOf(meta)); }

// Clients, their files, and the index that is told the same.
class World {
  public:
    void publish(ClientNumber client, u32 file, std::unique_ptr<FileMeta> meta) {
        const auto number = index.publish(client, hashOfFile(file), recordOf(*meta));
        EXPECT_EQ(number.has_value(), clients[file].count(client) == 0);
        if (number) numbers[{client, file}] = *number;
        if (clients[file].empty() || clients[file] == std::set{client}) records[file] = std::move(meta);
        clients[file].insert(client);
    }
    void withdraw(ClientNumber client, u32 file) {
        const auto found = numbers.find({client, file});
        if (found == numbers.end()) return;
        index.withdraw(client, found->second);
        numbers.erase(found);
        clients[file].erase(client);
        if (!clients[file].empty()) return;
        clients.erase(file);
        records.erase(file);
    }
    std::set<u32> walk(const SearchNode& tree) {
        std::set<u32> found;
        for (const auto& [file, meta] : records) {
            meta->setInt(TAG_AVAILABILITY, static_cast<u32>(clients[file].size()));
            if (tree.matches(*meta)) found.insert(file);
            meta->removeTag(TAG_AVAILABILITY);
        }
        return found;
    }
    // Asks a few results at a time, and with little work at a time.
    std::set<u32> ask(const SearchNode& tree, u32 page, u64 slice) const {
        SearchRun run(tree.clone(), 3);
        std::set<u32> found;
        while (!run.atEnd()) {
            u64 work = slice;
            u32 taken = 0;
            index.search(run, work, [&](const FileRecord&, const MD4Hash& hash, u32) {
                if (taken == page) return false;
                EXPECT_TRUE(found.insert(numberOf(hash)).second) << "met twice";
                ++taken;
                return true;
            });
        }
        return found;
    }

    FileIndex index;
    std::map<u32, std::set<ClientNumber>> clients;
    std::map<u32, std::unique_ptr<FileMeta>> records;
    std::map<std::pair<ClientNumber, u32>, FileNumber> numbers;
};

class Dice {
  public:
    u32 below(u32 n) { return std::uniform_int_distribution<u32>(0, n - 1)(engine_); }
    // Few letters, so that texts share pieces; some capitals, blanks and bytes past ASCII.
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
        // More names than are kept apart.
        if (below(3) == 0) meta->setInt(("number" + std::to_string(below(40))).c_str(), below(5));
        if (below(2)) meta->setText(TAG_TYPE, below(2) ? "Audio" : "Video");
        if (below(3) == 0) meta->setText("Artist", text(4).c_str());
        return meta;
    }
    std::unique_ptr<SearchNode> tree(u32 depth) {
        if (depth > 0 && below(2))
            return std::make_unique<SN_Compound>(below(5), tree(depth - 1), tree(depth - 1));
        static const char* const names[] = {"\x01", "\x03", "Artist"};
        static const char* const numbers[] = {"\x02", "\x15", "number1", "number39"};
        switch (below(6)) {
            case 0:
                return std::make_unique<SN_StrTagCompare>("\x03", "audio");
            case 1:
                return std::make_unique<SN_StrTagCompare>(names[below(3)], text(3).c_str());
            case 2:
                return std::make_unique<SN_IntTagCompare>(numbers[below(4)], static_cast<i32>(below(4)),
                                                          below(6));
            case 3:
                return std::make_unique<SN_MatchAll>();
            default:
                return std::make_unique<SN_FindStr>(text(5).c_str());
        }
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
            const auto tree = dice.tree(3);
            char text[500] = "";
            tree->printable(text, sizeof text);
            ASSERT_EQ(world.ask(*tree, 1 + dice.below(1000), 10'000 + dice.below(500'000)), world.walk(*tree))
                << text;
        }
        for (const char* text : {"a", "ab", "abc", "abca", "AB", "x", "\xa9", "cx", "o", "abcabcab", ""}) {
            const SN_FindStr tree(text);
            ASSERT_EQ(world.ask(tree, 5000, 1'000'000), world.walk(tree)) << text;
        }
    };
    for (u32 i = 0; i < 14'000; ++i) world.publish(1 + dice.below(3), i % 13'000, dice.meta());
    compare(25);
    // Most files go: segments dissolve, and what is left is still found.
    for (u32 i = 0; i < 13'000; ++i) {
        if (dice.below(4)) {
            for (ClientNumber client = 1; client <= 3; ++client) world.withdraw(client, i);
        }
    }
    compare(15);
    for (u32 i = 20'000; i < 26'000; ++i) world.publish(7, i, dice.meta());
    compare(15);
    for (u32 i = 0; i < 26'000; ++i) {
        for (const ClientNumber client : {1u, 2u, 3u, 7u}) world.withdraw(client, i);
    }
    EXPECT_EQ(world.index.fileCount(), 0u);
    for (u32 i = 0; i < 50'000; ++i) {
        world.publish(1, i, dice.meta());
        world.withdraw(1, i);
    }
    compare(3);
    EXPECT_LT(world.index.wordIndexBytes(), 100'000u) << "what has gone takes no room";
}

TEST(FileIndex, ASearchGoesOnWhileFilesComeAndGo) {
    World world;
    Dice dice;
    for (u32 i = 0; i < 9000; ++i) world.publish(1, i, dice.meta());
    SearchRun run(std::make_unique<SN_FindStr>("x"), 1);
    std::set<u32> found;
    for (u32 step = 0; !run.atEnd(); ++step) {
        u64 work = 200'000;
        world.index.search(run, work, [&](const FileRecord&, const MD4Hash& hash, u32) {
            found.insert(numberOf(hash));
            return true;
        });
        for (u32 i = 0; i < 300; ++i) world.withdraw(1, dice.below(6000));
        if (step < 5) world.publish(1, 60'000 + step, dice.meta());
    }
    for (u32 i = 6000; i < 9000; ++i) EXPECT_EQ(found.count(i), 1u) << i;
    world.index.checkInvariants();
}

TEST(FileIndex, CountsClientsAndKeepsTheFirstRecord) {
    FileIndex index(FileIndex::Limits{2, 1u << 20});
    FileMeta first;
    first.setName("first");
    first.setInt(TAG_AVAILABILITY, 77);
    FileMeta second;
    second.setName("second");
    const auto seen = [&] {
        std::string text;
        SearchRun run(std::make_unique<SN_MatchAll>(), 1);
        u64 work = 1'000'000;
        index.search(run, work, [&](const FileRecord& record, const MD4Hash& hash, u32 availability) {
            Bytes bytes;
            record.write(bytes, hash, availability);
            BytesFile stream(bytes);
            FileMeta meta;
            EXPECT_TRUE(meta.fromNetwork(stream) && stream.bytesLeft() == 0u && meta.hash == hash);
            text += std::string(meta.getName()) + " " + std::to_string(meta.getInt(TAG_AVAILABILITY)) + ";";
            return true;
        });
        return text;
    };
    const auto a = index.publish(1, hashOfFile(1), recordOf(first));
    EXPECT_EQ(seen(), "first 1;") << "what a client says of the availability isn't asked for";
    const auto b = index.publish(2, hashOfFile(1), recordOf(second));
    EXPECT_EQ(seen(), "first 2;");
    EXPECT_FALSE(index.publish(2, hashOfFile(1), recordOf(second))) << "again";
    EXPECT_EQ(seen(), "first 2;");
    index.withdraw(1, *a);
    EXPECT_EQ(seen(), "first 1;");
    EXPECT_FALSE(index.publish(2, hashOfFile(1), recordOf(second)));
    EXPECT_EQ(seen(), "second 1;") << "its only client may rename it";
    EXPECT_EQ(index.sources(hashOfFile(1))->size(), 1u);
    const auto c = index.publish(2, hashOfFile(2), recordOf(first));
    EXPECT_TRUE(c);
    EXPECT_FALSE(index.publish(2, hashOfFile(3), recordOf(first))) << "full";
    index.withdraw(2, *b);
    EXPECT_EQ(index.sources(hashOfFile(1)), nullptr);
    EXPECT_TRUE(index.publish(2, hashOfFile(3), recordOf(first)));
    index.checkInvariants();
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
    meta.setTag("bits", &bits, META_TAG_BOOLARRAY);
    MetaBlob blob{1, 2, 3};
    meta.setTag("blob", &blob, META_TAG_BLOB);
    const FileRecord record = recordOf(meta);
    EXPECT_TRUE(record.hasName());
    std::string names;
    FileRecordTags tags(record, 3);
    for (TagView tag; tags.next(tag);) names += std::string(tag.name) + ",";
    EXPECT_EQ(names, "\x01,number,bits,blob,\x15,");

    // A zero byte in a text, a tag without a name, a count that isn't one.
    const FileRecord odd =
        recordOf(Bytes{3, 0, 0, 0, 2, 1, 0, 1, 2, 0, 'a', 0, 3, 1, 0, 'n', 1, 0, 0, 0, 5, 1, 0, 'b', 1});
    EXPECT_FALSE(odd.hasName());
    EXPECT_EQ(odd.size(), 5u);
    EXPECT_EQ(recordOf(Bytes{0, 0, 0, 0x80}).size(), 0u);

    sweepDamage(tagsOf(meta), [](std::span<const u8> damaged) {
        ByteReader reader(damaged);
        FileRecord result;
        if (!result.read(reader)) return;
        FileRecordTags walked(result, 1);
        int count = 0;
        for (TagView tag; walked.next(tag);) ++count;
        EXPECT_GE(count, 1);
    });
}

}  // namespace
