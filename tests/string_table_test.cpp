// Texts by number: the built-in ones, language files, and texts that stay valid when the language changes.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app/StringTable.h"
#include "tests/support/Process.h"
#include "tests/support/files.h"

namespace {

class StringTableTest : public testing::Test {
  protected:
    const char* file(const std::string& text) {
        writeFile(path_, text);
        return path_.c_str();
    }
    StringTable table_;

  private:
    TemporaryDirectory folder_;
    const std::string path_ = folder_.file("language.str");
};

TEST_F(StringTableTest, WithoutALanguageFileTheBuiltInTextsStand) {
    EXPECT_EQ(table_.get(0), nullptr);
    for (const char* noFile : {"/nonexistent/fr.str", "/", "/dev/zero"}) {
        table_.reload(noFile);
        for (const auto& [number, text] : {std::pair{STRINGS_EMPTY, ""},
                                           {STRINGS_DL_STATUS_TRANSFERING, "Transferring."},
                                           {STRINGS_NOT_CONNECTED, "Not connected to a server."},
                                           {STRINGS_CONFIRM_CANCEL_TITLE, "Confirm Cancel"},
                                           {STRINGS_COUNT, ""}}) {
            EXPECT_STREQ(table_.get(number), text) << noFile;
        }
    }
    EXPECT_STREQ(table_.get(0xFFFFFFFF), "");
    table_.set(STRINGS_COUNT, "nobody's");
    EXPECT_EQ(table_.count(), 78u);
}

TEST_F(StringTableTest, LinesReplaceTextsFromTheFirstNumberOn) {
    std::string tooMany;
    for (int i = 0; i < 80; ++i) tooMany += "text " + std::to_string(i) + "\n";
    const std::string longest(1023, 'x');
    const struct {
        std::string text;
        u32 lines;
        std::vector<std::pair<u32, std::string>> expected;
    } cases[] = {
        {"busy\n", 1, {{0, "busy"}, {1, "Queued"}}},
        {"busy", 1, {{0, "busy"}, {1, "Queued"}}},
        {"busy\r\nwaits\r\n", 2, {{0, "busy"}, {1, "waits"}, {2, "Looking..."}}},
        {"busy\n\nlooks\n", 3, {{1, ""}, {2, "looks"}}},
        {"bu\rsy\nwaits\n", 2, {{0, "bu"}, {1, "waits"}}},
        {std::string("bu\0sy\nwaits\n", 12), 2, {{0, "bu"}, {1, "waits"}}},
        {tooMany, 80, {{0, "text 0"}, {77, "text 77"}, {78, ""}}},
        {longest + "\nwaits\n", 2, {{0, longest}, {1, "waits"}}},
        {longest + std::string(9000, 'y') + "\nwaits\n", 2, {{0, longest}, {1, "waits"}}},
        {"", 0, {{1, "Queued"}}},
    };
    for (const auto& [text, lines, expected] : cases) {
        const char* path = file(text);
        table_.reload(path);
        for (const auto& [number, shown] : expected) EXPECT_EQ(table_.get(number), shown) << text;
        EXPECT_EQ(table_.loadFile(path), lines) << text;
    }
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
    const char* path = file("\nEn attente\n");
    std::atomic<bool> done = false;
    std::thread reader([&] {
        while (!done) {
            const std::string text = table_.get(1);
            if (text != "Queued" && text != "En attente") ADD_FAILURE() << text;
        }
    });
    for (int i = 0; i < 200; ++i) table_.reload(i % 2 ? "/nonexistent" : path);
    done = true;
    reader.join();
}

}  // namespace
