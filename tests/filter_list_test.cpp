// The filter on search results: what a line takes out, and what a file of lines may look like.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "app/FilterList.h"
#include "meta/FileList.h"
#include "tests/support/Process.h"

namespace {

class FilterListTest : public testing::Test {
  protected:
    ~FilterListTest() override { results_.deleteAll(); }
    bool load(const std::string& text) {
        std::ofstream(path(), std::ios::binary) << text;
        return filter_.load(path().c_str());
    }
    std::string path() const { return folder_.path() + "/filters.txt"; }
    void add(const char* name, const char* format = nullptr) {
        auto file = std::make_unique<FileMeta>();
        file->setName(name);
        if (format) file->setText(TAG_FORMAT, format);
        file->hash.bytes[0] = static_cast<u8>(results_.count() + 1);
        results_.add(file.release());
    }
    std::string names() const {
        std::string all;
        for (const FileMeta* file : results_.snapshot()) all += std::string(file->getName()) + "|";
        return all;
    }
    FilterList filter_;
    FileList results_;

  private:
    TemporaryDirectory folder_;
};

TEST_F(FilterListTest, AnyLineFoundInAnyTextTakesAFileOut) {
    ASSERT_TRUE(load("Spam\r\n\r\nEXE\nfoo bar"));
    for (const char* name : {"first spam.mp3", "good.mp3", "my SPAM", "spammer", "foo  bar", "a foo barn"})
        add(name);
    add("packed", "exe");
    add("last");
    MD4Hash last;
    last.bytes[0] = 8;
    ASSERT_NE(results_.find(last), nullptr);
    filter_.filter(results_);
    EXPECT_EQ(names(), "good.mp3|foo  bar|last|");
    EXPECT_EQ(results_.count(), 3u);
    // The index of the list goes with it, and the list is free for others.
    EXPECT_STREQ(results_.find(last)->getName(), "last");
    last.bytes[0] = 3;
    EXPECT_EQ(results_.find(last), nullptr);
    EXPECT_FALSE(filter_.matches(*results_.get(0)));
}

TEST_F(FilterListTest, WithoutLinesNothingIsFiltered) {
    add("spam");
    EXPECT_FALSE(filter_.load((path() + ".missing").c_str()));
    filter_.filter(results_);
    ASSERT_TRUE(load("spam"));
    EXPECT_TRUE(filter_.matches(*results_.get(0)));
    ASSERT_TRUE(load("\r\n\n"));  // the old lines go
    filter_.filter(results_);
    EXPECT_EQ(names(), "spam|");
    ASSERT_TRUE(load("spam"));
    EXPECT_FALSE(filter_.load("/nonexistent"));
    EXPECT_FALSE(filter_.matches(*results_.get(0)));
    ASSERT_TRUE(load("spam"));
    filter_.filter(results_);
    EXPECT_EQ(names(), "");
}

TEST_F(FilterListTest, LongLinesAreCutAndManyLinesFit) {
    ASSERT_TRUE(load(std::string(255, 'x') + "yyy\nz\n"));
    add((std::string(255, 'x') + "!").c_str());
    add("yyy");
    filter_.filter(results_);
    EXPECT_EQ(names(), "yyy|");
    std::string many;
    for (int i = 0; i < 50'000; ++i) many += "word" + std::to_string(i) + "\n";
    ASSERT_TRUE(load(many));
    add("WORD49999");
    filter_.filter(results_);
    EXPECT_EQ(names(), "yyy|");
}

}  // namespace
