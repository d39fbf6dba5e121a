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
std::pair<Texts, i32> tokens(const char* text, const char* delimiters, std::size_t out_size) {
    Texts result;
    i32 offset = 0;
    for (;;) {
        char out[256] = "untouched";
        const i32 next = i4_strtok(text, delimiters, offset, out, out_size);
        if (next == 0) {
            EXPECT_STREQ(out, "untouched");
            return {result, offset};
        }
        result.emplace_back(out);
        offset = next;
    }
}

TEST(Strtok, SplitsAsToldAndSaysWhereItStands) {
    const char* words = " ,_-.(){}[]!?<>\t\n";
    const std::string flood = "longstringofrandomwordsoverflowthebuffer";
    const struct {
        const char* text;
        std::size_t room;
        Texts tokens;
        i32 lastOffset;
    } cases[] = {{"Hello OUT THere", 256, {"Hello", "OUT", "THere"}, -1},
                 {".)Hello(test]]]]", 256, {"Hello", "test"}, 12},
                 {flood.c_str(), 256, {flood}, -1},
                 {"longstring", 5, {"long", "stri", "ng"}, -1},
                 {"longstri", 5, {"long", "stri"}, 8},  // full at the very end: a position, not -1
                 {".!!{} ____", 256, {}, 0},
                 {"", 256, {}, 0},
                 {"abc", 1, {}, 0},  // no room for a character
                 {"abc", 0, {}, 0},
                 {"a\xffz z", 256, {"a\xffz", "z"}, -1}};
    for (const auto& c : cases) {
        EXPECT_EQ(tokens(c.text, words, c.room), std::make_pair(c.tokens, c.lastOffset)) << c.text;
    }
    char out[256];
    const i32 behind = i4_strtok(flood.c_str(), words, 0, out, 5);
    EXPECT_EQ(behind, 4);
    EXPECT_EQ(i4_strtok(flood.c_str(), words, behind, out, sizeof out), -1);
    EXPECT_EQ(out, flood.substr(4));
}

TEST(Getline, SkipsLineEndsAndStopsAtThem) {
    const char* text = "\r\n\none\r\ntwo words\n\nlast";
    char out[64];
    u32 cursor = 0;
    const std::pair<const char*, char> expected[] = {
        {"one", '\r'}, {"two words", '\n'}, {"last", 0}, {"", 0}};
    for (const auto& [line, stop] : expected) {
        EXPECT_EQ(i4_getline(out, text, cursor), stop);
        EXPECT_STREQ(out, line);
    }
    EXPECT_EQ(cursor, std::string(text).size());
}

TEST(Compare, OrdersBySignedCharacterAndNullFirst) {
    const char* a = "a";
    const struct {
        const char* left;
        const char* right;
        int exact;
        int folded;
    } cases[] = {
        {nullptr, nullptr, 0, 0}, {nullptr, "", -1, -1}, {"", nullptr, 1, 1}, {a, a, 0, 0},
        {"abc", "abd", -1, -1},   {"ab", "abc", -1, -1}, {"B", "a", -1, 1},   {"Tag", "tAG", -1, 0},
        {"[", "a", -1, 1},        {"\xe9", "a", -1, -1}, {"_", "A", 1, 1},    {"\xe4", "\xc4", 1, 1}};
    for (const auto& c : cases) {
        EXPECT_EQ(i4_strcmp(c.left, c.right), c.exact) << c.left << "," << c.right;
        EXPECT_EQ(i4_stricmp(c.left, c.right), c.folded) << c.left << "," << c.right;
        if (!c.left || !c.right) continue;
        const std::size_t n = std::min(i4_strlen(c.left), i4_strlen(c.right)) + 1;
        EXPECT_EQ(i4_memcmp(c.left, c.right, n), c.exact) << c.left << "," << c.right;
        EXPECT_EQ(i4_memicmp(c.left, c.right, n), c.folded) << c.left << "," << c.right;
    }
    EXPECT_EQ(i4_memcmp("x\0a", "x\0b", 3), -1);
    EXPECT_EQ(i4_memcmp("x\0a", "x\0b", 2), 0);
}

TEST(Find, ExactIgnoringCaseAndWithALowerNeedle) {
    const char* hay = "Hello OUT THere";
    EXPECT_EQ(stristr(hay, "thERe"), hay + 10);
    EXPECT_EQ(stristr(hay, "out"), hay + 6);
    EXPECT_EQ(stristr(hay, "dog"), nullptr);
    EXPECT_EQ(i4_strstr(hay, "OUT"), hay + 6);
    EXPECT_EQ(i4_strstr(hay, "out"), nullptr);
    const char* repeats = "aaab";
    EXPECT_EQ(i4_strstr(repeats, "aab"), repeats + 1);
    EXPECT_EQ(i4_stristr_lower(hay, "there"), hay + 10);
    EXPECT_EQ(i4_stristr_lower(hay, "THERE"), nullptr);
    EXPECT_EQ(stristr("there", "there!"), nullptr);
    EXPECT_EQ(i4_strstr(hay, ""), hay);
    EXPECT_EQ(stristr(nullptr, "a"), nullptr);
}

TEST(Numbers, StopAtTheFirstOtherCharacterAndWrap) {
    const std::pair<const char*, i32> cases[] = {{"42", 42},        {"-17x9", -17},
                                                 {"", 0},           {"-", 0},
                                                 {" 5", 0},         {"+5", 0},
                                                 {"--5", 0},        {"007", 7},
                                                 {"12.9", 12},      {"2147483647", 2147483647},
                                                 {"4294967297", 1}, {"-2147483648", -2147483647 - 1}};
    for (const auto& [text, value] : cases) EXPECT_EQ(i4_atoi(text), value) << text;
}

TEST(Copies, KeepTheirBounds) {
    char d[8];
    EXPECT_STREQ(i4_strncpy(d, "abcdefgh", 4), "abc");
    EXPECT_STREQ(i4_strncpy(d, "ab", 8), "ab");
    EXPECT_STREQ(i4_strcat(i4_strcpy(d, "ab"), "cd"), "abcd");
    d[0] = 'x';
    i4_strncpy(d, "ab", 0);
    EXPECT_EQ(d[0], 'x');
    EXPECT_EQ(i4_strdup(nullptr), nullptr);
    EXPECT_EQ(i4_strlen(nullptr), 0U);
}

TEST(String, KnowsNullFromEmpty) {
    const i4_string empty;
    i4_string null(nullptr);
    EXPECT_STREQ(empty.c_str(), "");
    EXPECT_TRUE(null.isNull());
    EXPECT_NE(null, empty);
    EXPECT_EQ(null, i4_string(static_cast<const char*>(nullptr)));
    EXPECT_EQ(null.view(), "");
    EXPECT_TRUE(i4_string(null).isNull());
    null.toLower();
    null += nullptr;
    EXPECT_TRUE(null.isNull());
    null += "grown";
    EXPECT_EQ(null, "grown");
    null = nullptr;
    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(i4_string(nullptr, 0), "");
    EXPECT_EQ(i4_string("abcdef", 3), "abc");
}

TEST(String, SurvivesBeingItsOwnSource) {
    i4_string s("Some TEXT");
    s = s.c_str() + 5;
    EXPECT_EQ(s, "TEXT");
    s += s.c_str();
    EXPECT_EQ(s, "TEXTTEXT");
    s = *&s;
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
