// Directories, names, buffered streams and saving, in a real temporary directory. Whatever fails in a save,
// either the old or the new file is complete, and no other file is left.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <numeric>
#include <random>
#include <set>
#include <string>
#include <thread>

#include "i4min/file/buffered_file.h"
#include "i4min/file/file.h"
#include "i4min/file/filesystem.h"
#include "i4min/file/save_file.h"
#include "i4min/memory/error.h"
#include "tests/support/files.h"
#include "tests/support/systemDisk.h"

namespace fs = std::filesystem;

namespace {

class Filesystem : public testing::Test {
  protected:
    std::string path(const std::string& name) const { return folder_.file(name); }

    const TemporaryDirectory folder_;
};

// Tests of sharing cover the other kinds of entries.
TEST_F(Filesystem, ListingTellsDirectoriesFromFiles) {
    const std::string file = path("Max: a\\b");
    writeFile(file, "");
    fs::resize_file(file, 5'000'000'000);  // more than 32 bits can hold
    fs::create_directory(path("folder"));
    fs::create_directory_symlink(path("folder"), path("linked"));
    i4_directory_list list;
    ASSERT_TRUE(i4_get_directory(folder_.path().c_str(), list, true));
    EXPECT_THAT(list.dirs, testing::UnorderedElementsAre(".", "..", "folder", "linked"));
    EXPECT_THAT(list.files, testing::ElementsAre("Max: a\\b"));
    EXPECT_EQ(list.file_status.at(0).size, 5'000'000'000U);
    EXPECT_FALSE(i4_get_directory(file.c_str(), list, true));
    i4_file_status status;
    ASSERT_TRUE(i4_get_status(file.c_str(), status));
    EXPECT_EQ(status.size, 5'000'000'000U);
    EXPECT_NEAR(static_cast<double>(status.last_modified), static_cast<double>(::time(nullptr)), 60);
    EXPECT_FALSE(i4_get_status(path("missing").c_str(), status));
    EXPECT_EQ(i4_disk_free(path("missing").c_str()), i4_disk_free_unknown);
    EXPECT_NE(i4_disk_free(folder_.path().c_str()), i4_disk_free_unknown);
}

TEST_F(Filesystem, SortsFilesWithTheirStatusByTheKey) {
    i4_directory_list list;
    list.files = {"b", "c", "a"};
    list.file_status = {{3, 1, 2, 0, 9'000'000'000}, {1, 2, 3, 0, 5}, {2, 3, 1, 0, 4'000'000'000}};
    i4_sort_directory(list, i4_sort_key::size);
    EXPECT_THAT(list.files, testing::ElementsAre("c", "a", "b"));
    EXPECT_EQ(list.file_status[0].size, 5U);
}

TEST_F(Filesystem, PathsAreMadeSplitAndRelatedByWholeComponents) {
    EXPECT_TRUE(i4_make_path(path("work/here/deep").c_str()));
    EXPECT_TRUE(i4_make_path(path("work/hereafter/").c_str()));
    writeFile(path("file"), "");
    EXPECT_FALSE(i4_make_path(path("file/x").c_str()));
    EXPECT_TRUE(i4_unlink((folder_.path() + "\\file").c_str()));
    EXPECT_FALSE(exists(path("file")));

    i4_string dir, name, ext("-"), before, out;
    i4_split_path("/a.b/c.tar.gz", dir, name, ext);
    EXPECT_EQ((std::array{dir, name, ext}), (std::array<i4_string, 3>{"/a.b", "c.tar", "gz"}));
    i4_split_path("a.b\\c", dir, name, out);
    EXPECT_EQ((std::array{dir, name, out}), (std::array<i4_string, 3>{"a.b", "c", ""}));

    ASSERT_TRUE(i4_get_cwd(before));
    ASSERT_TRUE(i4_chdir(path("work/here").c_str()));
    const std::pair<const char*, const char*> ways[] = {
        {"work/here/deep", "deep"}, {"work/hereafter", "../hereafter"}, {"work", "../"}, {"work/here", ""}};
    for (const auto& [target, expected] : ways) {
        EXPECT_TRUE(i4_relative_path(path(target).c_str(), out));
        EXPECT_STREQ(out.c_str(), expected) << target;
    }
    EXPECT_FALSE(i4_relative_path(path("missing").c_str(), out));
    ASSERT_TRUE(i4_chdir(before.c_str()));
}

// A memory stream that counts its calls, and can fail or shorten its writes.
class CountingStream : public i4_owned_ram_file {
  public:
    i32 read(std::span<u8> to) override {
        ++reads;
        return i4_owned_ram_file::read(to);
    }
    i32 write(std::span<const u8> bytes) override {
        ++writes;
        if (fail) return -1;
        return i4_owned_ram_file::write(bytes.first(std::min(bytes.size(), most)));
    }
    int reads = 0;
    int writes = 0;
    bool fail = false;
    std::size_t most = 0xffffffff;
};

TEST(BufferedFile, RandomReadsAndWritesMatchAPlainStream) {
    for (const auto& [size, most] : {std::pair{1U, 3U}, {7U, 3U}, {64U, 1000U}}) {
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
            if (const u32 choice = below(4); choice == 0) {
                // Every second time, seek near a boundary of the buffer.
                const u32 near = std::min(model.tell() + below(3), model.size());
                const u32 to = below(2) ? near : below(model.size() + 1);
                model.seek(to);
                file.seek(to);
            } else if (choice < 3) {
                for (u8& byte : mine) byte = static_cast<u8>(below(256));
                ASSERT_EQ(file.write({mine, length}), model.write({mine, length}));
            } else {
                const i32 got = model.read({theirs, length});
                ASSERT_EQ(file.bytesLeft(), model.bytesLeft().value() + static_cast<u32>(got));
                ASSERT_EQ(file.read({mine, length}), got);
                ASSERT_TRUE(std::equal(mine, mine + got, theirs));
                ASSERT_EQ(file.tell(), model.tell());
            }
        }
        file.flush();
        ASSERT_EQ(disk.size(), model.size());
        EXPECT_TRUE(std::equal(disk.buffer(), disk.buffer() + disk.size(), model.buffer()));
    }
}

TEST(BufferedFile, SmallPiecesShareACallAndAFailureIsTold) {
    auto inner = std::make_unique<CountingStream>();
    CountingStream& disk = *inner;
    i4_buffered_file_class file(std::move(inner), 100, 0);
    for (int i = 0; i < 250; ++i) file.write_8(static_cast<u8>(i));
    file.seek(0);
    for (int i = 0; i < 250; ++i) EXPECT_EQ(file.read_8(), i);
    EXPECT_EQ(std::pair(disk.writes, disk.reads), std::pair(3, 3));
    disk.fail = true;
    const u8 block[99] = {};
    EXPECT_EQ(file.write(block), 99);
    EXPECT_EQ(file.write(block), -1);
    EXPECT_EQ(file.write_8(1), 0U);
}

class SaveFile : public testing::Test {
  protected:
    bool saveBy(const std::function<bool(i4_file&)>& write) {
        return (reason_ = saveFile(systemDisk(), path_.c_str(), write)).empty();
    }
    bool save(const std::string& text) {
        return saveBy([&](i4_file& file) { return file.write(i4_bytes(text)) > 0; });
    }
    // Writes thirty strings of different lengths and a count that is filled in at the end, like the lists do.
    // `beforeEach` runs before each of them.
    bool saveRecords(const std::function<void()>& beforeEach = [] {}) {
        return saveBy([&](i4_file& file) {
            file.write_32(0);
            for (u32 n = 0; n < 30; ++n) {
                beforeEach();
                i4_write_string(file, std::string(n * 300, static_cast<char>('a' + n % 26)).c_str());
            }
            const u32 end = file.tell();
            EXPECT_EQ(file.size(), end);
            file.seek(0);
            file.write_32(30);
            file.seek(end);
            return true;
        });
    }
    // The names in the directory, in order.
    std::string names() const {
        std::set<std::string> sorted;
        for (const auto& entry : fs::directory_iterator(folder_.path())) {
            sorted.insert(" " + entry.path().filename().string());
        }
        return std::accumulate(sorted.begin(), sorted.end(), std::string()).substr(1);
    }
    // Expects that the save failed and reported this reason, and that only the old file exists.
    void expectOld(const std::string& reason) {
        EXPECT_EQ(contentOf(path_), "old");
        EXPECT_EQ(names(), "known.met");
        EXPECT_EQ(reason_, reason);
    }

    const TemporaryDirectory folder_;
    const std::string path_ = folder_.file("known.met");
    std::string reason_;
};

// The old file exists at every point, in case the process dies, and after every failed save.
TEST_F(SaveFile, KeepsTheOldFileUntilTheNewOneIsWhole) {
    for (int failing = 0; failing < 30; ++failing) {
        save("old");
        writeFile(path_ + ".new", "left behind by a crash");
        int call = 0;
        EXPECT_FALSE(saveRecords([&] {
            EXPECT_EQ(contentOf(path_), "old");
            if (call++ == failing) i4_error()("write string error");
        }));
        expectOld("write string error");
    }
    EXPECT_FALSE(saveBy([](i4_file& file) { return file.write_8(1), false; }));
    expectOld("its contents couldn't be written");
    writeFile(path_ + ".new", "left behind by a crash");
    EXPECT_TRUE(save("new"));
    EXPECT_EQ(contentOf(path_), "new");
    EXPECT_EQ(names(), "known.met");
}

// The size limit simulates a disk that is full at each possible byte.
TEST_F(SaveFile, KeepsTheOldFileWhenTheDiskIsFull) {
    const auto oldAction = std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ::getrlimit(RLIMIT_FSIZE, &old);
    save("old");
    for (const rlim_t room : {0U, 3U, 65535U, 65536U, 130563U, 130564U}) {
        const rlimit tight{room, old.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
        const bool saved = saveRecords();
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
        EXPECT_EQ(saved, room == 130564) << room;
        if (!saved) expectOld("File too large");
    }
    std::signal(SIGXFSZ, oldAction);
    const auto file = i4_open_exact(path_.c_str(), I4_FILE_READ);
    EXPECT_EQ(file->read_32(), 30U);
    for (u32 n = 0; n < 30; ++n) EXPECT_EQ(i4_string(*file).length(), n * 300);
    EXPECT_EQ(file->bytesLeft(), 0U);
}

TEST_F(SaveFile, KeepsLinksAndModes) {
    fs::create_directory(folder_.file("elsewhere"));
    fs::create_symlink("elsewhere/one", folder_.file("link"));
    fs::create_symlink("link", path_);
    for (const mode_t mode : {0600U, 0666U}) {
        EXPECT_TRUE(save("old"));
        ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
        EXPECT_TRUE(save("new"));
        EXPECT_EQ(static_cast<mode_t>(fs::status(path_).permissions()), mode);
        EXPECT_EQ(contentOf(folder_.file("elsewhere/one")), "new");
    }
    EXPECT_TRUE(fs::is_symlink(path_));
    EXPECT_EQ(names(), "elsewhere known.met link");
}

TEST_F(SaveFile, NamesWhatItCannotSaveAndSetsAsideWhatIsDamaged) {
    fs::create_directories(path_ + "/full");
    EXPECT_FALSE(save("text"));
    EXPECT_EQ(reason_, "Is a directory");
    EXPECT_EQ(setAsideDamaged(systemDisk(), path_.c_str()), "");
    EXPECT_EQ(names(), "known.met.bad");
}

TEST_F(SaveFile, TwoAtOnceAreBothWhole) {
    // A save inside another save of the same path.
    EXPECT_TRUE(saveBy([&](i4_file& file) {
        file.write(i4_bytes("outer"));
        std::thread([&] { EXPECT_TRUE(save("inner")); }).join();
        EXPECT_EQ(contentOf(path_), "inner");
        return true;
    }));
    EXPECT_EQ(contentOf(path_), "outer");
    EXPECT_EQ(names(), "known.met");
}

}  // namespace
