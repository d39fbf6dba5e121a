// Searches: trees, their bytes, what they match, and what they print.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "i4min/file/file.h"
#include "meta/FileList.h"
#include "meta/FileMeta.h"
#include "server/Search.h"
#include "tests/support/damage.h"

namespace {

using Bytes = std::vector<u8>;
using Node = std::unique_ptr<SearchNode>;

constexpr u32 anyUnknown = 9;

Node find(const char* text) { return std::make_unique<SN_FindStr>(text); }
Node inTag(const char* name, const char* value) { return std::make_unique<SN_StrTagCompare>(name, value); }
Node number(const char* name, i32 value, u32 op) {
    return std::make_unique<SN_IntTagCompare>(name, value, op);
}
Node all() { return std::make_unique<SN_MatchAll>(); }
Node join(u32 op, Node left, Node right) {
    return std::make_unique<SN_Compound>(op, std::move(left), std::move(right));
}

Bytes bytesOf(const SearchNode& node) {
    i4_owned_ram_file stream;
    EXPECT_TRUE(node.toBytes(stream));
    EXPECT_EQ(stream.tell(), node.byteSize());
    return Bytes(stream.buffer(), stream.buffer() + stream.tell());
}

Node readBytes(std::span<const u8> bytes, u32* left = nullptr) {
    Bytes copy(bytes.begin(), bytes.end());
    i4_ram_file_class stream(copy.data(), static_cast<u32>(copy.size()), 0);
    stream.setUsed(static_cast<u32>(copy.size()));
    Node node = SearchNode::read(stream);
    if (left) *left = *stream.bytesLeft();
    return node;
}

std::string printed(const SearchNode& node, std::size_t room = 1000) {
    std::vector<char> out(room + 1, '#');
    out[0] = 0;
    node.printable(out.data(), room);
    EXPECT_EQ(out[room], '#');
    return out.data();
}

// The console's search for hello with the type Audio.
const Bytes helloAudio = {0x00, 0x00, 0x02, 0x05, 0x00, 0x41, 0x75, 0x64, 0x69, 0x6f, 0x01,
                          0x00, 0x03, 0x01, 0x05, 0x00, 0x68, 0x65, 0x6c, 0x6c, 0x6f};

TEST(Search, WritesTheBytesThatServersRead) {
    Search search;
    i4_owned_ram_file nothing;
    EXPECT_FALSE(search.toBytes(nothing));
    EXPECT_EQ(nothing.tell(), 0u);
    EXPECT_EQ(search.byteSize(), 0u);
    search.add(inTag("\x03", "Audio"), SEARCH_AND);
    search.add(find("Hello"), SEARCH_AND);
    EXPECT_EQ(bytesOf(*search.root()), helloAudio);
    EXPECT_EQ(search.byteSize(), 21u);
    EXPECT_EQ(bytesOf(*all()), Bytes{4});
    EXPECT_EQ(bytesOf(*number("\x02", -2, COMPARE_AT_LEAST)), (Bytes{3, 0xfe, 0xff, 0xff, 0xff, 3, 1, 0, 2}));
}

TEST(Search, ReadsWhatItWroteInLowerCase) {
    const Node tree = join(SEARCH_LEFT_ONLY, join(SEARCH_OR, find("a b"), inTag("Artist", "QUEEN\xc4")),
                           join(SEARCH_RIGHT_ONLY, number("\x02", 7, COMPARE_NOT_EQUAL), all()));
    Bytes bytes = bytesOf(*tree);
    const Node back = readBytes(bytes);
    ASSERT_TRUE(back);
    for (u8& byte : bytes) {
        if (byte >= 'Q' && byte <= 'U' && byte != 'A') byte = static_cast<u8>(byte + 32);
    }
    for (u8 capital : {'E', 'N'})
        std::replace(bytes.begin(), bytes.end(), capital, static_cast<u8>(capital + 32));
    EXPECT_EQ(bytesOf(*back), bytes) << "value lowered, name of the tag and bytes past ASCII as they were";
    EXPECT_EQ(bytesOf(*back->clone()), bytes);
    EXPECT_EQ(back->cost(), 10u + 3u + 1u + 0u);
    u32 left = 0;
    EXPECT_TRUE(readBytes(Bytes{4, 99}, &left));
    EXPECT_EQ(left, 1u) << "behind a tree nothing is read";
}

TEST(Search, RefusesWhatIsNoTree) {
    for (const Bytes& bad : {Bytes{}, Bytes{5}, Bytes{0}, Bytes{0, 0, 4}, Bytes{0, 0, 4, 5},
                             Bytes{1, 3, 0, 'a', 'b'}, Bytes{3, 1, 0, 0, 0, 0}, Bytes{1, 0xff, 0xff, 'a'}}) {
        EXPECT_FALSE(readBytes(bad)) << testing::PrintToString(bad);
    }
    Search search;
    search.add(all(), SEARCH_AND);
    Bytes bad{0, 0, 4};
    i4_ram_file_class stream(bad.data(), 3, 0);
    stream.setUsed(3);
    EXPECT_FALSE(search.fromBytes(stream));
    EXPECT_FALSE(search.root()) << "the old tree is gone too";
}

TEST(Search, BoundsDepthAndNodesOfWhatItReads) {
    const auto chain = [](u32 levels) {  // so many levels, down the left
        Bytes bytes;
        for (u32 i = 1; i < levels; ++i) bytes.insert(bytes.end(), {0, 0});
        bytes.insert(bytes.end(), levels, 4);
        return bytes;
    };
    EXPECT_TRUE(readBytes(chain(64)));
    EXPECT_FALSE(readBytes(chain(65)));
    // A balanced tree of 2^n leaves has 2^(n + 1) - 1 nodes.
    const auto balanced = [](auto self, u32 levels) -> Node {
        return levels == 0 ? all() : join(SEARCH_OR, self(self, levels - 1), self(self, levels - 1));
    };
    EXPECT_TRUE(readBytes(bytesOf(*balanced(balanced, 9))));                           // 1,023 nodes
    EXPECT_FALSE(readBytes(bytesOf(*join(SEARCH_OR, balanced(balanced, 9), all()))));  // 1,025
}

TEST(Search, SurvivesDamage) {
    const Node tree = join(SEARCH_AND, join(SEARCH_XOR, find("words"), number("\x02", 7, COMPARE_BELOW)),
                           inTag("\x03", "col"));
    sweepDamage(bytesOf(*tree), [](std::span<const u8> bytes) {
        if (const Node node = readBytes(bytes)) bytesOf(*node);
    });
}

struct Record {
    Record() {
        meta.setName("My LOVELY Song.mp3");
        meta.setInt(TAG_SIZE, 0xFFFFFFF0);
        meta.setText("Artist", "Que\xc4n");
        meta.setText("empty", "");
        meta.setInt("bitrate", 128);
    }
    FileMeta meta;
};

TEST(Search, MatchesRecords) {
    const Record record;
    struct {
        Node node;
        bool expected;
        const char* why;
    } const table[] = {
        {find("love"), true, "inside a longer word, in capitals"},
        {find("y S"), true, "a blank is a character like any other"},
        {find("lovesong"), false, "not held"},
        {find("song.mp3que"), false, "not across tags"},
        {find("128"), false, "numbers are no text"},
        {find(""), true, "an empty text is held by a tag that isn't empty"},
        {find("QUE\xc4N"), true, "bytes past ASCII as they are"},
        {find("que\xe4n"), false, "only ASCII folds"},
        {inTag("\x01", "song"), true, ""},
        {inTag("\x01", "Song"), false, "a capital in a value built here"},
        {inTag("Artist", "song"), false, "another tag's"},
        {inTag("artist", "que"), false, "names are exact"},
        {inTag("empty", ""), false, "an empty text in an empty tag"},
        {inTag("Artist", ""), true, ""},
        {inTag("bitrate", "128"), false, "not a string tag"},
        {inTag("\x01", nullptr), false, "no value"},
        {number("bitrate", 128, COMPARE_EQUAL), true, ""},
        {number("bitrate", 127, COMPARE_EQUAL), false, ""},
        {number("bitrate", 127, COMPARE_ABOVE), true, "the tag's value stands on the left"},
        {number("bitrate", 128, COMPARE_ABOVE), false, ""},
        {number("bitrate", 129, COMPARE_BELOW), true, ""},
        {number("bitrate", 128, COMPARE_BELOW), false, ""},
        {number("bitrate", 128, COMPARE_AT_LEAST), true, ""},
        {number("bitrate", 129, COMPARE_AT_LEAST), false, ""},
        {number("bitrate", 128, COMPARE_AT_MOST), true, ""},
        {number("bitrate", 127, COMPARE_AT_MOST), false, ""},
        {number("bitrate", 127, COMPARE_NOT_EQUAL), true, ""},
        {number("bitrate", 128, COMPARE_NOT_EQUAL), false, ""},
        {number("\x02", 0, COMPARE_BELOW), true, "numbers are signed"},
        {number("Artist", 0, COMPARE_NOT_EQUAL), false, "not an integer tag"},
        {number("absent", 0, COMPARE_EQUAL), false, ""},
        {all(), true, ""},
    };
    for (const auto& row : table) {
        EXPECT_EQ(row.node->matches(record.meta), row.expected) << printed(*row.node) << ": " << row.why;
        const Node copy = row.node->clone();
        EXPECT_EQ(copy->matches(record.meta), row.expected) << "clone of " << printed(*row.node);
    }
}

TEST(Search, JoinsBranches) {
    const Record record;
    struct {
        u32 op;
        bool bothFalse, rightTrue, leftTrue, bothTrue;
    } const table[] = {
        {SEARCH_AND, false, false, false, true},        {SEARCH_OR, false, true, true, true},
        {SEARCH_LEFT_ONLY, false, false, true, false},  {SEARCH_XOR, false, true, true, false},
        {SEARCH_RIGHT_ONLY, false, true, false, false},
    };
    const auto side = [](bool value) { return find(value ? "song" : "absent"); };
    for (const auto& row : table) {
        const bool expected[] = {row.bothFalse, row.rightTrue, row.leftTrue, row.bothTrue};
        for (int i = 0; i < 4; ++i) {
            SCOPED_TRACE(row.op * 10 + static_cast<u32>(i));
            const bool l = i >= 2, r = i % 2 == 1;
            EXPECT_EQ(join(row.op, side(l), side(r))->matches(record.meta), expected[i]);
            // The same below another node on the left, and on the right.
            const Node left = join(SEARCH_OR, join(row.op, side(l), side(r)), side(false));
            EXPECT_EQ(left->matches(record.meta), expected[i]);
            const Node right = join(SEARCH_LEFT_ONLY, side(true), join(row.op, side(l), side(r)));
            EXPECT_EQ(right->matches(record.meta), !expected[i]);
        }
    }
    testing::internal::CaptureStdout();
    EXPECT_FALSE(join(anyUnknown, all(), all())->matches(record.meta));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unknown Operation in Search");
    testing::internal::CaptureStdout();
    EXPECT_FALSE(number("bitrate", 1, anyUnknown)->matches(record.meta));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Unknown Operation in SN_IntTagCompare");
}

TEST(Search, ALongChainNeedsLittleStack) {
    const Record record;
    for (const char* last : {"song", "absent"}) {
        const bool expected = std::strcmp(last, "song") == 0;
        Search filter;
        Node chain = find(last);
        for (int i = 0; i < 300000; ++i) {
            filter.add(i == 0 ? find(last) : find("absent"), SEARCH_OR);
            chain = join(SEARCH_OR, find("absent"), std::move(chain));
        }
        EXPECT_EQ(filter.matches(record.meta), expected);
        EXPECT_EQ(chain->matches(record.meta), expected);
    }
}

TEST(Search, FindsRecordsInAList) {
    FileMeta songs[3];
    FileList list;
    FileList found;
    for (int i = 0; i < 3; ++i) {
        songs[i].setName(i == 1 ? "film" : "song");
        list.add(&songs[i]);
    }
    Search search;
    search.add(find("song"), SEARCH_AND);
    list.search(search, found, 0);
    EXPECT_EQ(found.count(), 2u);
    EXPECT_EQ(found.get(1), &songs[2]);
    found.clear();
    list.search(search, found, 1);
    EXPECT_EQ(found.count(), 1u);
}

TEST(Search, TakesAKeyword) {
    const auto song = [] { return find("song"); };
    struct {
        Node tree;
        const char* keyword;
        const char* rest;  // printed
    } table[] = {
        {find("one"), "one", "*"},
        {find("one  two three"), "one", " ( three & two ) "},
        {find(" one"), "one", "*"},
        {find("one "), "one", "one"},
        {find("one two "), "one", " ( two & two ) "},
        {find(""), "", ""},
        {all(), "", "*"},
        {join(SEARCH_AND, song(), all()), "song", "*"},
        {join(SEARCH_AND, all(), song()), "song", "*"},
        {join(SEARCH_AND, find("a b"), find("c")), "a", " ( b & c ) "},
        {join(SEARCH_AND, inTag("T", "audio"), find("a b")), "a", " ( T=audio & b ) "},
        {join(SEARCH_OR, song(), all()), "", " ( song | * ) "},
        {join(SEARCH_AND, join(SEARCH_OR, song(), all()), song()), "song", " ( song | * ) "},
        {join(SEARCH_AND, join(SEARCH_AND, all(), song()), find("b")), "song", " ( * & b ) "},
    };
    for (auto& row : table) {
        Search search;
        const std::string before = printed(*row.tree);
        search.add(std::move(row.tree), SEARCH_AND);
        EXPECT_STREQ(search.keyword().c_str(), row.keyword) << before;
        EXPECT_EQ(printed(*search.root()), row.rest) << before;
        if (*row.keyword) {
            EXPECT_STREQ(search.keyword().c_str(), row.keyword) << "asked again";
            EXPECT_EQ(printed(*search.root()), row.rest) << "asked again";
        }
    }
    // A long word comes in pieces of 255.
    for (const std::size_t length : {255u, 256u, 600u}) {
        Search search;
        search.add(find(std::string(length, 'w').c_str()), SEARCH_AND);
        EXPECT_EQ(search.keyword().length(), 255u);
        const std::string rest = printed(*search.root());
        EXPECT_EQ(std::count(rest.begin(), rest.end(), 'w'), static_cast<std::ptrdiff_t>(length - 255));
    }
}

TEST(Search, PrintsWithinItsRoom) {
    Search search;
    char out[200] = "old";
    search.printable(out, sizeof out);
    EXPECT_STREQ(out, "search(  )");
    search.add(join(SEARCH_XOR, inTag("Type", "audio"), number("Size", -5, COMPARE_AT_MOST)), SEARCH_AND);
    search.add(find("Hello"), SEARCH_LEFT_ONLY);
    const std::string whole = "search(  (  ( Type=audio x Size<=-5 )  ! hello )  )";
    for (std::size_t room : {200u, 52u, 51u, 20u, 3u, 1u}) {
        std::memset(out, '#', sizeof out);
        search.printable(out, room);
        EXPECT_EQ(out, whole.substr(0, room - 1));
        if (room < sizeof out) {
            EXPECT_EQ(out[room], '#');
        }
    }
    EXPECT_EQ(printed(*join(SEARCH_RIGHT_ONLY, find("a"), find("b"))), " ( a  b ) ");
    EXPECT_EQ(printed(*number("n", 1, anyUnknown)), "nER1");
}

TEST(Search, TakesNewValues) {
    const Record record;
    const Node text = find("absent");
    text->setValue("SONG");
    EXPECT_TRUE(text->matches(record.meta));
    const Node tag = inTag("\x01", "absent");
    tag->setValue("song");
    EXPECT_TRUE(tag->matches(record.meta));
    const Node size = number("bitrate", 1, COMPARE_EQUAL);
    const i32 value = 128;
    size->setValue(&value);
    EXPECT_TRUE(size->matches(record.meta));
    size->setValue(nullptr);
    EXPECT_FALSE(size->matches(record.meta));
}

}  // namespace
