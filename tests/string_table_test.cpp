// Texts by number: the built-in ones, language files, and texts that stay valid when the language changes.
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app/StringTable.h"
#include "tests/support/Process.h"

namespace {

class StringTableTest : public testing::Test {
  protected:
    const char* file(const std::string& text) {
        path_ = folder_.path() + "/language.str";
        std::ofstream(path_, std::ios::binary) << text;
        return path_.c_str();
    }
    StringTable table_;

  private:
    TemporaryDirectory folder_;
    std::string path_;
};

TEST_F(StringTableTest, WithoutALanguageFileTheBuiltInTextsStand) {
    EXPECT_EQ(table_.get(0), nullptr);
    table_.reload("/nonexistent/fr.str");
    EXPECT_EQ(table_.count(), 78u);
    EXPECT_STREQ(table_.get(STRINGS_EMPTY), "");
    EXPECT_STREQ(table_.get(14), "Transferring.");
    EXPECT_STREQ(table_.get(STRINGS_NOT_CONNECTED), "Not connected to a server.");
    EXPECT_STREQ(table_.get(77), "Confirm Cancel");
    EXPECT_STREQ(table_.get(78), "");
    EXPECT_STREQ(table_.get(0xFFFFFFFF), "");
    // The same words under two numbers are two texts.
    table_.set(STRINGS_DOWNLOADING, "En cours");
    EXPECT_STREQ(table_.get(STRINGS_DL_STATUS_DOWNLOADING), "Downloading");
    table_.set(78, "nobody's");
    EXPECT_EQ(table_.count(), 78u);
}

TEST_F(StringTableTest, LinesReplaceTextsFromTheFirstNumberOn) {
    struct Case {
        const char* what;
        std::string text;
        u32 lines;
        std::vector<std::pair<u32, std::string>> expected;
    };
    std::string tooMany;
    for (int i = 0; i < 80; ++i) tooMany += "text " + std::to_string(i) + "\n";
    const std::string longest(1023, 'x');
    const std::vector<Case> cases = {
        {"one line", "busy\n", 1, {{0, "busy"}, {1, "Queued"}}},
        {"no end of line", "busy", 1, {{0, "busy"}, {1, "Queued"}}},
        {"CR LF", "busy\r\nwaits\r\n", 2, {{0, "busy"}, {1, "waits"}, {2, "Looking..."}}},
        {"an empty line", "busy\n\nlooks\n", 3, {{1, ""}, {2, "looks"}}},
        {"a CR inside", "bu\rsy\nwaits\n", 2, {{0, "bu"}, {1, "waits"}}},
        {"a NUL inside", std::string("bu\0sy\nwaits\n", 12), 2, {{0, "bu"}, {1, "waits"}}},
        {"more lines than numbers", tooMany, 80, {{0, "text 0"}, {77, "text 77"}, {78, ""}}},
        {"the longest line", longest + "\nwaits\n", 2, {{0, longest}, {1, "waits"}}},
        {"a longer line", longest + std::string(9000, 'y') + "\nwaits\n", 2, {{0, longest}, {1, "waits"}}},
        {"an empty file", "", 0, {{1, "Queued"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const char* path = file(c.text);
        table_.reload(path);
        for (const auto& [number, text] : c.expected) EXPECT_EQ(table_.get(number), text);
        EXPECT_EQ(table_.loadFile(path), c.lines);
    }
}

TEST_F(StringTableTest, WhatIsNoPlainFileIsNoLanguage) {
    table_.reload("/");
    EXPECT_STREQ(table_.get(1), "Queued");
    table_.reload("/dev/zero");
    EXPECT_STREQ(table_.get(0), "");
}

TEST_F(StringTableTest, TextsHandedOutOutliveEveryChangeOfLanguage) {
    table_.reload("/nonexistent");
    const char* english = table_.get(1);
    const char* path = file("\nEn attente\n");
    table_.reload(path);
    const char* french = table_.get(1);
    table_.build(3);
    table_.set(1, "three");
    EXPECT_STREQ(english, "Queued");
    EXPECT_STREQ(french, "En attente");
    EXPECT_EQ(table_.count(), 3u);
    // A language that comes back costs no memory.
    table_.reload(path);
    EXPECT_EQ(table_.get(1), french);
}

TEST_F(StringTableTest, ReadersSeeWholeTablesWhileTheLanguageChanges) {
    table_.reload("/nonexistent");
    const std::string path = file("\nEn attente\n");
    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done) {
            const std::string text = table_.get(1);
            if (text != "Queued" && text != "En attente") ADD_FAILURE() << text;
        }
    });
    for (int i = 0; i < 200; ++i) table_.reload(i % 2 ? "/nonexistent" : path.c_str());
    done = true;
    reader.join();
}

}  // namespace
