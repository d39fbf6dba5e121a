// Searches: trees, their bytes, what they match, and what they print.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "meta/FileMeta.h"
#include "server/Search.h"
#include "tests/support/bytes.h"

namespace {

using Node = std::unique_ptr<SearchNode>;

Node find(const std::string& text) { return std::make_unique<SN_FindStr>(text.c_str()); }
Node inTag(const char* name, const char* value) { return std::make_unique<SN_StrTagCompare>(name, value); }
Node number(const char* tag, i32 value, u32 op) { return std::make_unique<SN_IntTagCompare>(tag, value, op); }
Node all() { return std::make_unique<SN_MatchAll>(); }
Node join(u32 op, Node left, Node right) {
    return std::make_unique<SN_Compound>(op, std::move(left), std::move(right));
}

std::string bytesOf(const SearchNode& node) {
    const Bytes bytes = written([&](i4_file& stream) { EXPECT_TRUE(node.toBytes(stream)); });
    EXPECT_EQ(bytes.size(), node.byteSize());
    return {bytes.begin(), bytes.end()};
}

Node readBytes(const std::string& bytes) {
    BytesFile stream(Bytes(bytes.begin(), bytes.end()));
    return SearchNode::read(stream);
}

std::string printed(const SearchNode& node) {
    char out[1000] = "";
    node.printable(out, sizeof out);
    return out;
}

// The record that the searches are matched against.
struct Record : FileMeta {
    Record() {
        setName("My LOVELY Song.mp3");
        setInt(TAG_SIZE, 0xFFFFFFF0);
        setText("Artist", "Que\xc4n");
        setText("empty", "");
        setInt("bitrate", 128);
    }
};

TEST(Search, TreesHaveTheirBytes) {
    // After reading, texts and values are in lower case; names of tags and non-ASCII bytes are unchanged.
    const struct {
        Node tree;
        std::string bytes, read;
    } table[] = {
        {join(SEARCH_AND, inTag("\x03", "Audio"), find("Hello")),
         std::string("\0\0\2\5\0Audio\1\0\3\1\5\0hello", 21),
         std::string("\0\0\2\5\0audio\1\0\3\1\5\0hello", 21)},
        {join(SEARCH_LEFT_ONLY, all(), inTag("Artist", "QUEEN\xc4")),
         le8(0) + "\2\4\2" + text16("QUEEN\xc4") + text16("Artist"),
         le8(0) + "\2\4\2" + text16("queen\xc4") + text16("Artist")},
        {number("\x02", -2, COMPARE_AT_LEAST), "\3" + le32(0xFFFFFFFE) + "\3" + text16("\2"),
         "\3" + le32(0xFFFFFFFE) + "\3" + text16("\2")},
    };
    for (const auto& row : table) {
        EXPECT_EQ(bytesOf(*row.tree), row.bytes);
        const Node back = readBytes(row.bytes + "x");
        ASSERT_TRUE(back);
        EXPECT_EQ(bytesOf(*back->clone()), row.read);
    }
}

TEST(Search, RefusesWhatIsNoTree) {
    for (std::size_t levels : {64U, 65U}) {  // levels on the left side
        const std::string chain = std::string(2 * levels - 2, '\0') + std::string(levels, '\4');
        EXPECT_EQ(readBytes(chain) != nullptr, levels == 64);
    }
    // A balanced tree of 2^n leaves has 2^(n + 1) - 1 nodes.
    const auto balanced = [](auto self, u32 levels) -> Node {
        return levels == 0 ? all() : join(SEARCH_OR, self(self, levels - 1), self(self, levels - 1));
    };
    EXPECT_TRUE(readBytes(bytesOf(*balanced(balanced, 9))));                           // 1,023 nodes
    EXPECT_FALSE(readBytes(bytesOf(*join(SEARCH_OR, balanced(balanced, 9), all()))));  // 1,025

    Search search;
    search.add(find("old"), SEARCH_AND);
    EXPECT_EQ(search.keyword(), "old");
    BytesFile stream(Bytes{0, 0, 4, 5});
    EXPECT_FALSE(search.fromBytes(stream));
    EXPECT_FALSE(search.root()) << "the old tree is gone too";
    EXPECT_EQ(search.keyword(), "") << "and so is its keyword";
}

TEST(Search, MatchesRecords) {
    const Record record;
    struct {
        Node node;
        bool expected;
        const char* why;
    } const table[] = {
        {find("y love"), true, "inside longer words, in capitals"},
        {find("128"), false, "numbers are no text"},
        {find(""), true, "an empty text is held by a tag that isn't empty"},
        {find("QUE\xc4N"), true, "bytes past ASCII as they are"},
        {find("que\xe4n"), false, "only ASCII folds"},
        {inTag("\x01", "Song"), false, "a capital in a value built here"},
        {inTag("Artist", "song"), false, "another tag's"},
        {inTag("artist", "que"), false, "names are exact"},
        {inTag("empty", ""), false, "an empty text in an empty tag"},
        {inTag("bitrate", "128"), false, "not a string tag"},
        {number("\x02", 0, COMPARE_BELOW), true, "numbers are signed"},
        {number("Artist", 0, COMPARE_NOT_EQUAL), false, "not an integer tag"},
    };
    for (const auto& row : table) EXPECT_EQ(row.node->matches(record), row.expected) << row.why;
    // Compares the bitrate 128 with 127, 128 and 129; the tag's value is on the left.
    const std::pair<u32, const char*> comparisons[] = {{COMPARE_EQUAL, "010"},   {COMPARE_ABOVE, "100"},
                                                       {COMPARE_BELOW, "001"},   {COMPARE_AT_LEAST, "110"},
                                                       {COMPARE_AT_MOST, "011"}, {COMPARE_NOT_EQUAL, "101"}};
    for (const auto& [op, expected] : comparisons) {
        std::string holds;
        for (i32 value = 127; value < 130; ++value)
            holds += number("bitrate", value, op)->matches(record) ? '1' : '0';
        EXPECT_EQ(holds, expected) << op;
    }
}

TEST(Search, JoinsBranches) {
    const Record record;
    // The result if neither, the right, the left, and both sides match.
    const std::pair<u32, const char*> table[] = {{SEARCH_AND, "0001"},
                                                 {SEARCH_OR, "0111"},
                                                 {SEARCH_LEFT_ONLY, "0010"},
                                                 {SEARCH_XOR, "0110"},
                                                 {SEARCH_RIGHT_ONLY, "0100"}};
    const auto side = [](bool value) { return find(value ? "song" : "absent"); };
    for (const auto& [op, answers] : table) {
        for (std::size_t i = 0; i < 4; ++i) {
            // Below another node on the left, and on the right.
            EXPECT_EQ(join(SEARCH_OR, join(op, side(i >= 2), side(i % 2)), side(false))->matches(record),
                      answers[i] == '1');
            EXPECT_EQ(
                join(SEARCH_LEFT_ONLY, side(true), join(op, side(i >= 2), side(i % 2)))->matches(record),
                answers[i] == '0');
        }
    }
}

// A list of filters is such a chain.
TEST(Search, ALongChainNeedsLittleStack) {
    Search filter;
    for (int i = 0; i < 100'000; ++i) filter.add(find(i == 0 ? "song" : "absent"), SEARCH_OR);
    EXPECT_TRUE(filter.matches(Record()));
}

TEST(Search, TakesAKeyword) {
    const auto song = [] { return find("song"); };
    struct {
        Node tree;
        std::string keyword;
        std::string rest;  // as printed
    } table[] = {
        {find("one  two three"), "one", " ( three & two ) "},
        {find("one "), "one", "one"},
        {find("one two "), "one", " ( two & two ) "},
        {find(std::string(600, 'w')), std::string(255, 'w'),
         " ( " + std::string(90, 'w') + " & " + std::string(255, 'w') + " ) "},
        {join(SEARCH_AND, all(), song()), "song", "*"},
        {join(SEARCH_AND, inTag("T", "audio"), find("a b")), "a", " ( T=audio & b ) "},
        {join(SEARCH_OR, song(), all()), "", " ( song | * ) "},
        {join(SEARCH_AND, join(SEARCH_AND, all(), song()), find("b")), "song", " ( * & b ) "},
    };
    for (auto& row : table) {
        Search search;
        search.add(std::move(row.tree), SEARCH_AND);
        search.keyword();
        EXPECT_EQ(search.keyword().c_str(), row.keyword) << row.rest;
        EXPECT_EQ(printed(*search.root()), row.rest);
    }
}

}  // namespace
