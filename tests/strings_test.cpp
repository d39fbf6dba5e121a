// i4_string, the free string functions, the tokeniser and the line reader.
#include "i4min/string/string.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "i4min/memory/malloc4.h"

namespace {

using Texts = std::vector<std::string>;

// The tokens of a text, and where the last call stood.
std::pair<Texts, i32> tokens(const char* text, std::size_t out_size) {
    Texts result;
    i32 offset = 0;
    for (;;) {
        char out[256] = "untouched";
        const i32 next = i4_strtok(text, " ,_-.(){}[]!?<>\t\n", offset, out, out_size);
        if (next == 0) {
            EXPECT_STREQ(out, "untouched");
            return {result, offset};
        }
        result.emplace_back(out);
        offset = next;
    }
}

TEST(Strings, AreCutIntoTokensAndLines) {
    const struct {
        const char* text;
        std::size_t room;
        Texts tokens;
        i32 lastOffset;
    } cases[] = {{"Hello OUT THere", 256, {"Hello", "OUT", "THere"}, -1},
                 {".)Hello(test]]]]", 256, {"Hello", "test"}, 12},
                 {"longstring", 5, {"long", "stri", "ng"}, -1},
                 {"longstri", 5, {"long", "stri"}, 8},  // full at the very end: a position, not -1
                 {".!!{} ____", 256, {}, 0},
                 {"abc", 1, {}, 0},  // no room for a character
                 {"a\xffz z", 256, {"a\xffz", "z"}, -1}};
    for (const auto& c : cases) {
        EXPECT_EQ(tokens(c.text, c.room), std::make_pair(c.tokens, c.lastOffset)) << c.text;
    }
    const char* text = "\r\n\none\r\ntwo words\n\nlast";
    u32 cursor = 0;
    const std::pair<const char*, char> lines[] = {{"one", '\r'}, {"two words", '\n'}, {"last", 0}, {"", 0}};
    for (const auto& [line, stop] : lines) {
        char out[64];
        EXPECT_EQ(i4_getline(out, text, cursor), stop);
        EXPECT_STREQ(out, line);
    }
}

TEST(Strings, CompareBySignedCharacterAndNullFirst) {
    const struct {
        const char* left;
        const char* right;
        int exact;
        int folded;
    } cases[] = {{nullptr, nullptr, 0, 0}, {nullptr, "", -1, -1},  {"", nullptr, 1, 1},
                 {"abc", "abd", -1, -1},   {"ab", "abc", -1, -1},  {"B", "a", -1, 1},
                 {"Tag", "tAG", -1, 0},    {"\xe9", "a", -1, -1},  {"_", "A", 1, 1},
                 {"[", "a", -1, 1},        {"\xe4", "\xc4", 1, 1}, {"x", "x", 0, 0}};
    for (const auto& c : cases) {
        EXPECT_EQ(i4_strcmp(c.left, c.right), c.exact) << c.left << "," << c.right;
        EXPECT_EQ(i4_stricmp(c.left, c.right), c.folded) << c.left << "," << c.right;
        if (!c.left || !c.right) continue;
        const std::size_t n = std::min(i4_strlen(c.left), i4_strlen(c.right)) + 1;
        EXPECT_EQ(i4_memcmp(c.left, c.right, n), c.exact) << c.left << "," << c.right;
        EXPECT_EQ(i4_memicmp(c.left, c.right, n), c.folded) << c.left << "," << c.right;
    }
}

TEST(Strings, AreFoundReadAndCopied) {
    const char* hay = "Hello OUT THere";
    EXPECT_EQ(stristr(hay, "thERe"), hay + 10);
    EXPECT_EQ(stristr(hay, "dog"), nullptr);
    EXPECT_EQ(stristr("there", "there!"), nullptr);
    EXPECT_EQ(stristr(nullptr, "a"), nullptr);
    EXPECT_EQ(i4_strstr(hay, "OUT"), hay + 6);
    EXPECT_EQ(i4_strstr(hay, "out"), nullptr);
    EXPECT_EQ(i4_stristr_lower(hay, "there"), hay + 10);
    EXPECT_EQ(i4_stristr_lower(hay, "THERE"), nullptr);
    const char* repeats = "aaab";
    EXPECT_EQ(i4_strstr(repeats, "aab"), repeats + 1);

    const std::pair<const char*, i32> numbers[] = {{"-17x9", -17}, {"", 0},    {"-", 0},          {" 5", 0},
                                                   {"+5", 0},      {"--5", 0}, {"4294967297", 1}, {"007", 7}};
    for (const auto& [text, value] : numbers) EXPECT_EQ(i4_atoi(text), value) << text;

    char d[8] = "x";
    i4_strncpy(d, "ab", 0);
    EXPECT_STREQ(d, "x");
    EXPECT_STREQ(i4_strncpy(d, "abcdefgh", 4), "abc");
    EXPECT_STREQ(i4_strcat(i4_strcpy(d, "ab"), "cd"), "abcd");
}

TEST(Strings, KnowNullFromEmptyAndSurviveBeingTheirOwnSource) {
    const i4_string empty;
    i4_string null(nullptr);
    EXPECT_NE(null, empty);
    EXPECT_EQ(null, i4_string(null));
    null.toLower();
    null += nullptr;
    EXPECT_TRUE(null.isNull());
    null += "grown";
    EXPECT_EQ(null, "grown");
    EXPECT_EQ(i4_string(nullptr, 0), "");
    EXPECT_EQ(i4_string("abcdef", 3), "abc");

    i4_string s("Some TEXT");
    s = s.c_str() + 5;
    s += s.c_str();
    EXPECT_EQ(s, "TEXTTEXT");
    s.format("%s-%S", s.c_str() + 4, &s);
    EXPECT_EQ(s, "TEXT-TEXTTEXT");
    s.toLower();
    s[0] = 'T';
    i4_string moved(std::move(s));
    EXPECT_EQ(moved, "Text-texttext");
    s = "again";
    EXPECT_EQ(s, "again");
}

}  // namespace
