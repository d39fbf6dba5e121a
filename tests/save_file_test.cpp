// Saving: whatever goes wrong, the old file or the new one is there, whole, and nothing else is left behind.
#include "i4min/file/save_file.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <set>
#include <string>
#include <thread>

#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/files.h"

namespace {

namespace fs = std::filesystem;

class SaveFile : public testing::Test {
  protected:
    bool save(const std::string& text, const std::string& path) {
        return saveFile(path.c_str(), [&](i4_file& file) {
            return file.write(text.data(), static_cast<u32>(text.size())) == static_cast<i32>(text.size());
        });
    }
    bool save(const std::string& text) { return save(text, path_); }
    // The names in the folder, in order.
    std::string names() const {
        std::set<std::string> sorted;
        for (const auto& entry : fs::directory_iterator(folder_.path()))
            sorted.insert(entry.path().filename());
        std::string result;
        for (const auto& name : sorted) result += (result.empty() ? "" : " ") + name;
        return result;
    }
    // The save failed for that reason, said so, and the old file is all there is.
    void expectOld(const std::string& reason) {
        EXPECT_EQ(contentOf(path_), "old");
        EXPECT_EQ(names(), "known.met");
        EXPECT_EQ(log_.take(), "Couldn't save " + path_ + ": " + reason + "\n");
    }

    const TemporaryDirectory folder_;
    const std::string path_ = folder_.file("known.met");
    CapturedLog log_;
};

// Thirty strings of different lengths and a count that is filled in at the end, as the lists write
// themselves.
bool writeRecords(
    i4_file& file, const std::function<void()>& beforeEach = [] {}) {
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
}

TEST_F(SaveFile, WritesTheBytesInPlaceOfTheOld) {
    ASSERT_TRUE(save("old and longer"));
    ASSERT_TRUE(saveFile(path_.c_str(), [](i4_file& file) { return writeRecords(file); }));
    const auto file = i4_open_exact(path_.c_str(), I4_FILE_READ);
    EXPECT_EQ(file->read_32(), 30U);
    for (u32 n = 0; n < 30; ++n) EXPECT_EQ(i4_string(*file).length(), n * 300);
    EXPECT_EQ(file->bytesLeft(), 0U);
    EXPECT_EQ(names(), "known.met");
    EXPECT_EQ(log_.take(), "");
}

TEST_F(SaveFile, KeepsTheOldFileWhenTheWriterGivesUpAtAnyPoint) {
    for (const bool raises : {false, true}) {
        for (int failing = 0; failing < 30; ++failing) {
            save("old");
            int call = 0;
            bool gaveUp = false;
            EXPECT_FALSE(saveFile(path_.c_str(), [&](i4_file& file) {
                writeRecords(file, [&] {
                    if (call++ != failing) return;
                    if (raises) i4_error()("write string error");
                    gaveUp = true;
                });
                return !gaveUp;
            }));
            expectOld(raises ? "write string error" : "its contents couldn't be written");
        }
    }
}

// The size limit stands in for a disk that is full at any one byte.
TEST_F(SaveFile, KeepsTheOldFileWhenTheDiskIsFull) {
    const auto oldAction = std::signal(SIGXFSZ, SIG_IGN);
    rlimit old{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &old), 0);
    save("old");
    for (const rlim_t room : {0U, 1U, 3U, 4U, 65535U, 65536U, 65537U, 130000U, 130563U, 130564U}) {
        const rlimit tight{room, old.rlim_max};
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &tight), 0);
        const bool saved = saveFile(path_.c_str(), [](i4_file& file) { return writeRecords(file); });
        ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &old), 0);
        EXPECT_EQ(saved, room >= 130564) << room;
        if (!saved) expectOld("File too large");
    }
    EXPECT_EQ(fs::file_size(path_), 130564U);
    std::signal(SIGXFSZ, oldAction);
}

// A process that dies in the middle of a save, at any point of it.
TEST_F(SaveFile, KeepsTheOldFileInACrashAndThenSavesOverWhatIsLeft) {
    save("old");
    for (int dying = 0; dying < 30; dying += 7) {
        const pid_t child = ::fork();
        if (child == 0) {
            int call = 0;
            saveFile(path_.c_str(), [&](i4_file& file) {
                return writeRecords(file, [&] {
                    if (call++ == dying) ::_exit(7);
                });
            });
            ::_exit(0);
        }
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_EQ(WEXITSTATUS(status), 7);
        EXPECT_EQ(contentOf(path_), "old");
    }
    EXPECT_EQ(names(), "known.met known.met.new");
    EXPECT_TRUE(save("new"));
    EXPECT_EQ(contentOf(path_), "new");
    EXPECT_EQ(names(), "known.met");
}

TEST_F(SaveFile, KeepsLinksAndModes) {
    fs::create_directory(folder_.file("elsewhere"));
    fs::create_symlink("elsewhere/one", folder_.file("link"));
    fs::create_symlink("link", path_);
    for (const char* text : {"made through the link", "replaced"}) {
        EXPECT_TRUE(save(text));
        EXPECT_TRUE(fs::is_symlink(path_));
        EXPECT_EQ(contentOf(folder_.file("elsewhere/one")), text);
    }
    EXPECT_EQ(names(), "elsewhere known.met link");
    fs::remove(path_);
    for (const mode_t mode : {0600U, 0666U, 0644U}) {
        save("old");
        ASSERT_EQ(::chmod(path_.c_str(), mode), 0);
        EXPECT_TRUE(save("new"));
        EXPECT_EQ(static_cast<mode_t>(fs::status(path_).permissions()), mode);
    }
}

TEST_F(SaveFile, NamesWhatItCannotSaveAndSetsAsideWhatIsDamaged) {
    const std::string nowhere = folder_.file("nowhere/pref.met");
    EXPECT_FALSE(save("text", nowhere));
    EXPECT_EQ(log_.take(), "Couldn't save " + nowhere + ": No such file or directory\n");
    fs::create_directories(path_ + "/full");
    EXPECT_FALSE(save("text"));
    EXPECT_EQ(log_.take(), "Couldn't save " + path_ + ": Is a directory\n");
    EXPECT_EQ(names(), "known.met");
    fs::remove_all(path_);
    save("damaged");
    setAsideDamaged(path_.c_str());
    EXPECT_EQ(names(), "known.met.bad");
    EXPECT_EQ(contentOf(path_ + ".bad"), "damaged");
}

TEST_F(SaveFile, TwoAtOnceAreBothWhole) {
    // The second save to the path runs inside the first one's.
    EXPECT_TRUE(saveFile(path_.c_str(), [&](i4_file& file) {
        file.write("outer", 5);
        std::thread([&] { EXPECT_TRUE(save("inner")); }).join();
        EXPECT_EQ(contentOf(path_), "inner");
        return true;
    }));
    EXPECT_EQ(contentOf(path_), "outer");
    EXPECT_EQ(names(), "known.met");
}

}  // namespace
