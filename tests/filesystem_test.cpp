// Directories, names and buffered streams, on a real temporary directory.
#include "i4min/file/filesystem.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <random>
#include <string>

#include "i4min/file/buffered_file.h"
#include "i4min/file/file.h"
#include "tests/support/files.h"

namespace fs = std::filesystem;

namespace {

class Filesystem : public testing::Test {
  protected:
    std::string path(const std::string& name) const { return folder_.file(name); }

    const TemporaryDirectory folder_;
};

TEST_F(Filesystem, ListingTellsDirectoriesFilesAndWhatMustNotBeOpened) {
    writeFile(path("plain"), "12345");
    writeFile(path("Max: a\\b"), "x");
    fs::create_directory(path("folder"));
    fs::create_directory_symlink(path("folder"), path("linked"));
    fs::create_symlink(path("nowhere"), path("dangling"));
    ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0600), 0);
    const fs::path before = fs::current_path();

    i4_directory_list list;
    ASSERT_TRUE(i4_get_directory(folder_.path().c_str(), list, true));
    EXPECT_EQ(fs::current_path(), before);
    EXPECT_THAT(list.dirs, testing::UnorderedElementsAre(".", "..", "folder", "linked"));
    ASSERT_EQ(list.files.size(), 4U);
    ASSERT_EQ(list.file_status.size(), 4U);
    std::map<std::string, i4_file_status> byName;
    for (std::size_t i = 0; i < 4; ++i) byName[list.files[i].c_str()] = list.file_status[i];
    EXPECT_EQ(byName["plain"].kind, i4_file_kind::regular);
    EXPECT_EQ(byName["plain"].size, 5U);
    EXPECT_EQ(byName["Max: a\\b"].kind, i4_file_kind::regular);
    EXPECT_EQ(byName["fifo"].kind, i4_file_kind::other);
    EXPECT_EQ(byName["dangling"].kind, i4_file_kind::unknown);

    i4_directory_list names;
    ASSERT_TRUE(i4_get_directory(folder_.path().c_str(), names, false));
    EXPECT_FALSE(i4_get_directory(path("plain").c_str(), names, true));
    EXPECT_FALSE(i4_get_directory(path("missing").c_str(), names, true));
    EXPECT_EQ(names.files.size(), 4U);
    EXPECT_TRUE(names.file_status.empty());
}

TEST_F(Filesystem, StatusAndSpace) {
    writeFile(path("large"), "");
    fs::resize_file(path("large"), 5'000'000'000);
    i4_file_status status;
    ASSERT_TRUE(i4_get_status(path("large").c_str(), status));
    EXPECT_EQ(status.size, 5'000'000'000U);
    EXPECT_EQ(status.flags, 0U);
    EXPECT_NEAR(static_cast<double>(status.last_modified), static_cast<double>(::time(nullptr)), 60);
    ASSERT_TRUE(i4_get_status(folder_.path().c_str(), status));
    EXPECT_EQ(status.flags, I4_FILE_STATUS_DIRECTORY);
    EXPECT_FALSE(i4_get_status(path("missing").c_str(), status));
    EXPECT_EQ(status.flags, 0U);
    EXPECT_GT(i4_disk_free(folder_.path().c_str()), 0U);
    EXPECT_EQ(i4_disk_free(path("missing").c_str()), 1099494785025U);
}

TEST_F(Filesystem, SortsFilesWithTheirStatusByTheKey) {
    const std::pair<i4_sort_key, const char*> orders[] = {{i4_sort_key::last_modified, "cab"},
                                                          {i4_sort_key::last_accessed, "bca"},
                                                          {i4_sort_key::created, "abc"},
                                                          {i4_sort_key::size, "cab"}};
    i4_directory_list list;
    list.files = {"b", "c", "a"};
    list.file_status = {{3, 1, 2, 0, 9'000'000'000}, {1, 2, 3, 0, 5}, {2, 3, 1, 0, 4'000'000'000}};
    for (const auto& [key, expected] : orders) {
        i4_sort_directory(list, key);
        std::string order;
        for (const i4_string& name : list.files) order += name.c_str();
        EXPECT_EQ(order, expected);
    }
    EXPECT_EQ(list.file_status[0].size, 5U);
}

TEST_F(Filesystem, MakesAPathAndUnlinksATranslatedName) {
    EXPECT_FALSE(i4_make_path(""));
    EXPECT_TRUE(i4_make_path(path("a/b/c").c_str()));
    EXPECT_TRUE(i4_make_path(path("a/b/c/").c_str()));
    EXPECT_TRUE(fs::is_directory(path("a/b/c")));
    writeFile(path("file"), "");
    EXPECT_FALSE(i4_make_path(path("file/x").c_str()));
    EXPECT_FALSE(i4_make_path(path("file").c_str()));
    std::string typed = path("file");
    std::replace(typed.begin(), typed.end(), '/', '\\');
    EXPECT_TRUE(i4_unlink(typed.c_str()));
    EXPECT_FALSE(exists(path("file")));
    EXPECT_FALSE(i4_unlink(path("file").c_str()));
}

TEST_F(Filesystem, SplitsPaths) {
    const struct {
        const char *path, *dir, *name, *ext;
    } table[] = {{"/a/b.tar.gz", "/a", "b.tar", "gz"},
                 {"plain", "-", "plain", "-"},
                 {"a.b/c", "a.b", "c", "-"},
                 {"a\\b.c", "a", "b", "c"},
                 {"/x", "", "x", "-"},
                 {"dir/", "dir", "", "-"},
                 {".hidden", "-", "", "hidden"}};
    for (const auto& row : table) {
        i4_string dir = "-";
        i4_string name = "-";
        i4_string ext = "-";
        i4_split_path(row.path, dir, name, ext);
        EXPECT_STREQ(dir.c_str(), row.dir) << row.path;
        EXPECT_STREQ(name.c_str(), row.name) << row.path;
        EXPECT_STREQ(ext.c_str(), row.ext) << row.path;
    }
}

TEST_F(Filesystem, RelativePathsGoByWholeComponents) {
    for (const char* name : {"work/here/deep", "work/hereafter", "other"}) fs::create_directories(path(name));
    i4_string before, out;
    ASSERT_TRUE(i4_get_cwd(before));
    ASSERT_TRUE(i4_chdir(path("work/here").c_str()));
    const std::pair<const char*, const char*> table[] = {{"work/here/deep", "deep"},
                                                         {"work/hereafter", "../hereafter"},
                                                         {"other", "../../other"},
                                                         {"work", "../"},
                                                         {"work/here", ""}};
    for (const auto& [target, expected] : table) {
        EXPECT_TRUE(i4_relative_path(path(target).c_str(), out));
        EXPECT_STREQ(out.c_str(), expected) << target;
    }
    EXPECT_FALSE(i4_relative_path(path("missing").c_str(), out));
    EXPECT_TRUE(i4_full_path("deep/../../hereafter", out));
    EXPECT_EQ(out.c_str(), path("work/hereafter"));
    ASSERT_TRUE(i4_chdir(before.c_str()));
}

// A memory stream that counts its calls, and fails or cuts short its writes on request.
class CountingStream : public i4_owned_ram_file {
  public:
    i32 read(void* buffer, u32 count) override {
        ++reads;
        return i4_owned_ram_file::read(buffer, count);
    }
    i32 write(const void* buffer, u32 count) override {
        ++writes;
        if (fail) return -1;
        return i4_owned_ram_file::write(buffer, std::min(count, most));
    }
    int reads = 0;
    int writes = 0;
    bool fail = false;
    u32 most = 0xffffffff;
};

TEST(BufferedFile, RandomReadsAndWritesMatchAPlainStream) {
    for (const u32 size : {1U, 7U, 64U}) {
        for (const u32 most : {3U, 1000U}) {
            auto inner = std::make_unique<CountingStream>();
            CountingStream& disk = *inner;
            disk.most = most;
            i4_buffered_file_class file(std::move(inner), size, 0);
            i4_owned_ram_file model;
            std::mt19937 random(size * most);
            const auto below = [&](u32 limit) { return static_cast<u32>(random() % limit); };
            for (int turn = 0; turn < 4000; ++turn) {
                const u32 length = below(40);
                u8 mine[40];
                u8 theirs[40];
                switch (below(4)) {
                    case 0: {
                        const u32 to = below(model.size() + 10);
                        // Seeking past the end makes the model longer at once, the file only when it is
                        // written.
                        if (to > model.size()) break;
                        model.seek(to);
                        file.seek(to);
                        break;
                    }
                    case 1:
                    case 2:
                        for (u8& byte : mine) byte = static_cast<u8>(below(256));
                        ASSERT_EQ(file.write(mine, length), model.write(mine, length));
                        break;
                    default: {
                        const i32 got = model.read(theirs, length);
                        ASSERT_EQ(file.bytesLeft(), model.bytesLeft().value() + static_cast<u32>(got));
                        ASSERT_EQ(file.read(mine, length), got);
                        ASSERT_TRUE(std::equal(mine, mine + got, theirs));
                        ASSERT_EQ(file.tell(), model.tell());
                    }
                }
            }
            file.flush();
            ASSERT_EQ(disk.size(), model.size());
            EXPECT_TRUE(std::equal(disk.buffer(), disk.buffer() + disk.size(), model.buffer()));
        }
    }
}

TEST(BufferedFile, SmallPiecesShareACallAndAFailureIsTold) {
    auto inner = std::make_unique<CountingStream>();
    CountingStream& disk = *inner;
    i4_buffered_file_class file(std::move(inner), 100, 0);
    for (int i = 0; i < 250; ++i) file.write_8(static_cast<u8>(i));
    EXPECT_EQ(disk.writes, 2);
    file.seek(0);
    for (int i = 0; i < 250; ++i) EXPECT_EQ(file.read_8(), i);
    EXPECT_EQ(disk.writes, 3);
    EXPECT_EQ(disk.reads, 3);
    EXPECT_EQ(file.map(5, 1, 0), disk.buffer() + 5);

    disk.fail = true;
    u8 block[100] = {};
    EXPECT_EQ(file.write(block, 99), 99);
    EXPECT_EQ(file.write(block, 99), -1);
    EXPECT_EQ(file.write_8(1), 0U);
}

}  // namespace
