// The filter on search results: what a line takes out, and what a file of lines may look like.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>

#include "app/FilterList.h"
#include "meta/FileList.h"
#include "tests/support/Process.h"

namespace {

// The names that are left of these when the filter has the lines of `text`.
std::string filtered(FilterList& filter, const std::string& text, const std::string& names) {
    const TemporaryDirectory folder;
    std::ofstream(folder.file("filters.txt"), std::ios::binary) << text;
    EXPECT_TRUE(filter.load(folder.file("filters.txt").c_str()));
    FileList results;
    u8 number = 0;
    for (std::size_t at = 0; at < names.size();) {
        const std::size_t end = names.find('|', at);
        auto file = std::make_unique<FileMeta>();
        file->setText(++number == 1 ? TAG_FORMAT : TAG_NAME, names.substr(at, end - at).c_str());
        file->hash.bytes[0] = number;
        results.add(file.release());
        at = end + 1;
    }
    filter.filter(results);
    std::string left;
    for (const FileMeta* file : results.snapshot()) {
        EXPECT_FALSE(filter.matches(*file));
        EXPECT_EQ(results.find(file->hash), file) << "the index of the list goes with it";
        left += std::string(file->getText(file->getName() ? TAG_NAME : TAG_FORMAT)) + "|";
    }
    results.deleteAll();
    return left;
}

TEST(FilterList, AnyLineFoundInAnyTextTakesAFileOut) {
    FilterList filter;
    EXPECT_EQ(filtered(filter, "Spam\r\n\r\nEXE\nfoo bar",
                       "exe|first spam.mp3|good.mp3|my SPAM|spammer|foo  bar|a foo barn|last|"),
              "good.mp3|foo  bar|last|");
    EXPECT_EQ(filtered(filter, "\r\n\n", "exe|spam|"), "exe|spam|") << "the old lines go";
    const std::string x255(255, 'x');
    EXPECT_EQ(filtered(filter, x255 + "yyy\nz\n", x255 + "!|yyy|" + x255.substr(1) + "|"),
              "yyy|" + x255.substr(1) + "|")
        << "a line counts up to its 255th character";
    std::string many;
    for (int i = 0; i < 50'000; ++i) many += "word" + std::to_string(i) + "\n";
    EXPECT_EQ(filtered(filter, many, "WORD49999|yyy|"), "yyy|");
    // A file that isn't there filters nothing.
    EXPECT_FALSE(filter.load("/nonexistent"));
    FileMeta word;
    word.setName("word1");
    EXPECT_FALSE(filter.matches(word));
}

}  // namespace
