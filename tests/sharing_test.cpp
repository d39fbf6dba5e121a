// Shared directories: share.dat, what is hashed, what is recognised, what is passed over and said.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "app/Preferences.h"
#include "app/StringTable.h"
#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Process.h"
#include "tests/support/SharedFiles.h"
#include "tests/support/damage.h"
#include "tests/support/independent_digest.h"

namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

// Notes what is hashed; `meanwhile` runs before the first byte of a file is read.
class HashEvents : public CapturedLog {
  public:
    void hashing(const char* name) override {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            names_.emplace_back(name);
        }
        if (meanwhile) meanwhile(name);
    }
    std::vector<std::string> takeNames() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return std::exchange(names_, {});
    }

    std::function<void(const std::string& name)> meanwhile;

  private:
    std::mutex mutex_;
    std::vector<std::string> names_;
};

class SharingTest : public testing::Test {
  protected:
    SharingTest() {
        stringTable.reload("");
        preferences.sharePath = home.file("share.dat").c_str();
        preferences.knownPath = home.file("known.met").c_str();
        preferences.setIncoming(home.file("incoming").c_str());
    }

    std::string makeDirectory(const std::string& name) {
        std::filesystem::create_directory(home.file(name));
        return home.file(name);
    }
    std::string write(const std::string& name, std::string_view bytes) {
        std::ofstream(home.file(name), std::ios::binary)
            .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        return home.file(name);
    }
    // Of the whole length, nearly all of it a hole.
    std::string writeHole(const std::string& name, u64 size) {
        const std::string path = write(name, "");
        std::filesystem::resize_file(path, size);
        return path;
    }
    std::string read(const std::string& name) {
        std::ifstream file(home.file(name), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(file), {});
    }

    TemporaryDirectory home;
    HashEvents events;
};

std::vector<std::string> textsOf(const std::vector<i4_string>& from) {
    std::vector<std::string> texts;
    for (const i4_string& text : from) texts.emplace_back(text.view());
    return texts;
}

std::vector<std::string> dirsOf(const ShareList& list) {
    std::vector<i4_string> dirs;
    list.copyTo(dirs);
    return textsOf(dirs);
}

class ShareDatTest : public SharingTest {};

TEST_F(ShareDatTest, HoldsTheDirectoriesAndNothingElse) {
    const std::string incoming = home.file("incoming");
    ShareList list;
    list.load();
    EXPECT_THAT(dirsOf(list), ElementsAre(incoming)) << "without a file";
    list.setDirs({"/a", incoming.c_str(), "/bc", "/a"});
    EXPECT_THAT(dirsOf(list), ElementsAre("/a", incoming, "/bc"));
    list.setDirs({"/odd \xff:\\"});
    list.addDir("/late");
    list.addDir(incoming.c_str());
    EXPECT_THAT(dirsOf(list), ElementsAre("/odd \xff:\\", incoming, "/late"));
    list.save();
    ShareList again;
    again.load();
    EXPECT_EQ(dirsOf(again), dirsOf(list));

    list.removeDir(incoming.c_str());
    list.removeDir("/nothing");
    list.removeDir("/late");
    list.removeDir("/odd \xff:\\");
    list.addDir("/a");
    list.addDir("/bc");
    list.save();
    EXPECT_EQ(read("share.dat"), "\x02\0/a\x03\0/bc"s);
    again.load();
    EXPECT_THAT(dirsOf(again), ElementsAre("/a", "/bc", incoming));
    EXPECT_THAT(events.take(), IsEmpty());
}

TEST_F(ShareDatTest, ADamagedOneKeepsWhatWasReadAndIsSetAside) {
    events.verbose = 1;
    const std::string damaged = "\x02\0/a\x03\0/b"s;
    write("share.dat", damaged);
    ShareList list;
    list.load();
    EXPECT_THAT(dirsOf(list), ElementsAre("/a", home.file("incoming")));
    EXPECT_EQ(events.take(),
              "Error loading shared directory list.\nError loading: " + home.file("share.dat") + "\n");
    EXPECT_FALSE(std::filesystem::exists(home.file("share.dat")));
    EXPECT_EQ(read("share.dat.bad"), damaged);

    const std::string good = "\x02\0/a\x03\0/bc"s;
    sweepDamage({reinterpret_cast<const std::uint8_t*>(good.data()), good.size()},
                [](std::span<const std::uint8_t> bytes) {
                    i4_ram_file_class stream(const_cast<u8*>(bytes.data()), static_cast<u32>(bytes.size()),
                                             0);
                    std::vector<i4_string> paths;
                    ShareList::readPaths(stream, paths);
                    EXPECT_LE(paths.size(), bytes.size() / 2);
                });
}

class HashThreadTest : public SharingTest {
  protected:
    // Ends when a run over these directories has ended.
    void hash(const std::vector<std::string>& dirs) {
        ask(dirs);
        waitForEnd();
    }
    void ask(const std::vector<std::string>& dirs) {
        std::vector<i4_string> list;
        for (const std::string& dir : dirs) list.emplace_back(dir.c_str());
        thread.hashDirs(std::move(list));
    }
    void waitForEnd() {
        ASSERT_TRUE(files.published.wait(static_cast<u32>(std::chrono::milliseconds(patience).count())));
        EXPECT_TRUE(thread.isFinished());
    }
    // The paths of what is shared.
    std::vector<std::string> shared() const {
        std::vector<std::string> paths;
        for (const FileMeta* file : files.sharedFiles.snapshot()) paths.emplace_back(file->path.view());
        return paths;
    }
    FileMeta* knownAs(const std::string& name) const {
        for (FileMeta* file : files.knownFiles.snapshot()) {
            if (file->getName() == name) return file;
        }
        return nullptr;
    }

    SharedFiles files;
    HashThread thread{files};
};

u32 secondsOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return static_cast<u32>(status.st_mtime);
}

void setSeconds(const std::string& path, u32 seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

TEST_F(HashThreadTest, FilesAreHashedInPartsOnceAndRecognisedFromThenOn) {
    const std::string dir = makeDirectory("dir");
    const std::string bytes = someBytes(20'000'000);
    const std::pair<std::size_t, std::size_t> sizes[] = {{0, 0},         {1, 0},         {9'727'999, 0},
                                                         {9'728'000, 2}, {9'728'001, 2}, {20'000'000, 3}};
    for (const auto& [size, partCount] : sizes) {
        write("dir/" + std::to_string(size) + ".iso", std::string_view(bytes).substr(0, size));
    }
    hash({dir});
    EXPECT_EQ(events.take(), "Loading shared files...\nDone loading shared files.\n");
    EXPECT_THAT(events.takeNames(), UnorderedElementsAre("0.iso", "1.iso", "9727999.iso", "9728000.iso",
                                                         "9728001.iso", "20000000.iso", "None."));
    EXPECT_EQ(files.sharedFiles.count(), 6u);
    for (const auto& [size, partCount] : sizes) {
        const std::string name = std::to_string(size) + ".iso";
        const FileMeta* file = knownAs(name);
        ASSERT_TRUE(file) << name;
        std::vector<MD4Hash> parts;
        EXPECT_EQ(file->hash, independentFileHash(std::string_view(bytes).substr(0, size),
                                                  home.file("independent"), parts))
            << name;
        EXPECT_EQ(file->partHashes, parts) << name;
        EXPECT_EQ(file->partHashes.size(), partCount) << name;
        EXPECT_EQ(file->getSize(), size);
        EXPECT_EQ(file->path, (dir + "/" + name).c_str());
        EXPECT_EQ(file->date, secondsOf(dir + "/" + name));
        EXPECT_STREQ(file->getText(TAG_TYPE), "Pro");
        EXPECT_STREQ(file->getText(TAG_FORMAT), "iso");
    }

    // The second start.
    SharedFiles reloaded;
    ASSERT_EQ(reloaded.knownFiles.load(preferences.knownPath.c_str()), LoadResult::whole);
    HashThread second(reloaded);
    second.hashDirs({dir.c_str()});
    ASSERT_TRUE(reloaded.published.wait(60'000));
    EXPECT_THAT(events.takeNames(), ElementsAre("None."));
    EXPECT_EQ(reloaded.knownFiles.count(), 6u);
    ASSERT_EQ(reloaded.sharedFiles.count(), 6u);
    for (const FileMeta* file : reloaded.sharedFiles.snapshot()) {
        EXPECT_EQ(file->path.view(), dir + "/" + file->getName());
        EXPECT_EQ(file->hash, knownAs(file->getName())->hash);
    }
}

TEST_F(HashThreadTest, KnownContentUnderAnotherNameTimeOrPlaceKeepsItsRecord) {
    const std::string dir = makeDirectory("dir");
    const std::string other = makeDirectory("dir/other");
    write("dir/old.zip", "the same");
    setSeconds(dir + "/old.zip", 1'000'000);
    write("dir/touched", "touched");
    write("dir/other/hidden", "in a directory that isn't shared yet");
    hash({dir});
    EXPECT_THAT(shared(), UnorderedElementsAre(dir + "/old.zip", dir + "/touched"));
    FileMeta* renamed = knownAs("old.zip");
    FileMeta* touched = knownAs("touched");
    ASSERT_TRUE(renamed && touched);
    std::filesystem::rename(dir + "/old.zip", dir + "/new");
    setSeconds(dir + "/touched", 2'000'000);
    files.sharedFiles.clear();
    events.takeNames();
    hash({dir});
    EXPECT_THAT(events.takeNames(), UnorderedElementsAre("new", "touched", "None."));
    EXPECT_THAT(files.sharedFiles.snapshot(), UnorderedElementsAre(renamed, touched));
    EXPECT_STREQ(renamed->getName(), "new");
    EXPECT_EQ(renamed->path, (dir + "/new").c_str());
    EXPECT_STREQ(renamed->getText(TAG_FORMAT), "zip") << "no importer has seen it again";
    EXPECT_EQ(touched->date, 2'000'000u);

    // A copy takes the record over, and the list has it twice; a directory inside another is one of its own.
    write("dir/other/copy", "the same");
    files.sharedFiles.clear();
    events.takeNames();
    hash({dir, other});
    EXPECT_THAT(events.takeNames(), UnorderedElementsAre("copy", "hidden", "None."));
    EXPECT_THAT(files.sharedFiles.snapshot(),
                UnorderedElementsAre(renamed, touched, renamed, knownAs("hidden")));
    EXPECT_STREQ(renamed->getName(), "copy");
    EXPECT_EQ(renamed->path, (other + "/copy").c_str());
    EXPECT_EQ(files.knownFiles.count(), 3u);
    EXPECT_EQ(files.knownFiles.find(8, secondsOf(other + "/copy"), "copy"), renamed) << "found by what it is";
    EXPECT_EQ(files.knownFiles.find(8, 1'000'000, "new"), nullptr);
}

TEST_F(HashThreadTest, ACollectionIsSharedUnderTheRecordThatItBrings) {
    const std::string dir = makeDirectory("dir");
    const std::string word = "\x0a\0collectio2"s;
    const std::string record = "\2\0\0\0\2\1\0\1\3\0Set\2\1\0\3\3\0Col"s;
    const std::string none = "\x0e\0\0\0\0"s;
    write("dir/set", word + std::string(4, 0) + std::string(16, 'Z') + "\0\0"s + record + none);
    write("dir/unhashed", word + std::string(20, 0) + "\0\0"s + record + none);
    for (int run = 0; run < 2; ++run) {
        files.sharedFiles.clear();
        hash({dir});
        EXPECT_THAT(shared(), ElementsAre(dir + "/set"));
        EXPECT_EQ(files.knownFiles.count(), 1u) << "the same each time";
        EXPECT_THAT(events.take(), HasSubstr("\nImport failed: unhashed\n"));
    }
    ASSERT_TRUE(knownAs("Set"));
    EXPECT_EQ(knownAs("Set")->hash.toText(), "5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a5a");
}

TEST_F(HashThreadTest, WhatCantBeSharedIsPassedOverAndSaid) {
    const std::string dir = makeDirectory("dir");
    const std::string gone = home.file("gone");
    ASSERT_EQ(::mkfifo((dir + "/fifo").c_str(), 0600), 0);
    std::filesystem::create_symlink("/dev/null", dir + "/device");
    std::filesystem::create_symlink(home.file("nothing"), dir + "/dangling");
    std::filesystem::create_symlink("/proc/self/mem", dir + "/unreadable");  // calls itself a regular file
    writeHole("dir/huge", 4'294'967'296);
    const std::string odd = "C: a\\b\xff\xfe%s.zip";
    write("dir/" + odd, "abc");
    files.directories.setDirs({gone.c_str(), dir.c_str()});
    hash({gone, dir});
    EXPECT_THAT(shared(), ElementsAre(dir + "/" + odd));
    EXPECT_STREQ(files.sharedFiles.get(0)->getName(), odd.c_str());
    EXPECT_THAT(events.takeNames(), UnorderedElementsAre(odd, "unreadable", "None."));
    const std::string text = events.take();
    for (const std::string& line :
         {"Couldn't hash: " + gone, dir + "/fifo isn't shared: it is no regular file",
          dir + "/device isn't shared: it is no regular file", "Couldn't get status of dangling"s,
          "ERROR: Couldn't hash unreadable"s,
          dir + "/huge isn't shared: it has 4294967296 bytes, and the most that a shared file can have is "
                "4294967295"}) {
        EXPECT_THAT(text, HasSubstr("\n" + line + "\n"));
    }
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 8) << text;
    EXPECT_THAT(dirsOf(files.directories), ElementsAre(dir, home.file("incoming"))) << "dropped for good";
    ShareList saved;
    saved.load();
    EXPECT_EQ(dirsOf(saved), dirsOf(files.directories));
}

TEST_F(HashThreadTest, AFileThatChangesBeforeItIsReadIsNotShared) {
    const std::string dir = makeDirectory("dir");
    for (const char* name : {"vanishes", "grows", "shrinks"}) write("dir/"s + name, "content of "s + name);
    events.meanwhile = [&](const std::string& name) {
        if (name == "vanishes") std::filesystem::remove(dir + "/vanishes");
        if (name == "grows") write("dir/grows", "content of a file that grows");
        if (name == "shrinks") std::filesystem::resize_file(dir + "/shrinks", 3);
    };
    hash({dir});
    EXPECT_EQ(files.knownFiles.count(), 0u);
    EXPECT_EQ(files.sharedFiles.count(), 0u);
    const std::string text = events.take();
    for (const char* name : {"vanishes", "grows", "shrinks"}) {
        EXPECT_THAT(text, HasSubstr("ERROR: Couldn't hash "s + name + "\n"));
    }
    events.meanwhile = nullptr;
    hash({dir});
    EXPECT_THAT(shared(), UnorderedElementsAre(dir + "/grows", dir + "/shrinks"))
        << "the next run finds them";
}

TEST_F(HashThreadTest, AListingThatHasGrownOldIsntBelieved) {
    const std::string dir = makeDirectory("dir");
    const std::vector<std::string> names = {"a", "b", "c", "d", "e", "f"};
    for (const std::string& name : names) write("dir/" + name, "content of " + name);
    hash({dir});
    files.sharedFiles.clear();
    events.take();
    write("dir/new", "has to be read");
    std::vector<std::string> left;
    events.meanwhile = [&](const std::string& name) {
        if (name != "new") return;
        for (const std::string& other : names) std::filesystem::remove(dir + "/" + other);
        left = shared();
    };
    hash({dir});
    std::size_t said = 0;
    const std::string text = events.take();
    for (const std::string& name : names) {
        said += text.find("Couldn't get status of " + name + "\n") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(left.size() + said, names.size()) << "what was still to come is gone";
    left.push_back(dir + "/new");
    EXPECT_EQ(shared(), left);
}

// Reading it takes long enough that somebody can ask for something else meanwhile.
constexpr u64 longTime = 4'294'967'295;

TEST_F(HashThreadTest, StoppingGivesUpTheFileAtHandAndKeepsWhatWasHashed) {
    const std::string dir = makeDirectory("dir");
    const std::string big = makeDirectory("big");
    write("dir/small", "small");
    writeHole("big/big", longTime);
    i4_semaphore reading;
    events.meanwhile = [&](const std::string& name) {
        if (name == "big") reading.signal();
    };
    ask({dir, big});
    ASSERT_TRUE(reading.wait(60'000));
    thread.stop();
    EXPECT_FALSE(thread.isFinished());
    EXPECT_FALSE(files.published.wait(1));
    EXPECT_EQ(files.knownFiles.count(), 1u) << "the big one wasn't read to its end";
    EXPECT_TRUE(knownAs("small"));
    events.takeNames();
    hash({dir});
    EXPECT_THAT(events.takeNames(), ElementsAre("None."));
    EXPECT_THAT(shared(), ElementsAre(dir + "/small")) << "once, though two runs have found it";
}

TEST_F(HashThreadTest, ARequestNeverWaitsForTheFileAtHand) {
    const std::string dir = makeDirectory("dir");
    const std::string big = makeDirectory("big");
    const std::string unshared = makeDirectory("unshared");
    write("dir/small", "small");
    write("unshared/private", "private");
    writeHole("big/big", longTime);
    i4_semaphore reading;
    events.meanwhile = [&](const std::string& name) {
        if (name == "big") reading.signal();
    };
    ask({unshared, big});
    ASSERT_TRUE(reading.wait(60'000));
    EXPECT_THAT(shared(), ElementsAre(unshared + "/private"));
    hash({dir});
    EXPECT_THAT(shared(), ElementsAre(dir + "/small")) << "nothing of the run that was given up";
    EXPECT_FALSE(knownAs("big"));
    EXPECT_TRUE(knownAs("private"));
}

TEST_F(HashThreadTest, RequestsInQuickSuccessionAllComeToAnEnd) {
    const std::string dir = makeDirectory("dir");
    write("dir/small", "small");
    hash({dir});
    // Each comes while the thread that served the one before is just ending.
    for (int i = 0; i < 50; ++i) {
        files.sharedFiles.clear();
        hash({dir});
        ASSERT_EQ(files.sharedFiles.count(), 1u) << i;
    }
}

// What is queued is a matter of the duties alone, so that it may as well be nothing.
TEST_F(HashThreadTest, PartialFilesGoFirstAndAreGivenUpAtAStop) {
    const std::string dir = makeDirectory("dir");
    write("dir/small", "small");
    std::vector<std::size_t> sharedBefore;
    files.onVerify = [&](const GiveUp& giveUp) {
        EXPECT_FALSE(giveUp());
        sharedBefore.push_back(shared().size());
    };
    thread.addPartial({});
    thread.addPartial({});
    hash({dir});
    EXPECT_THAT(sharedBefore, ElementsAre(0u, 0u));
    EXPECT_EQ(files.sharedFiles.count(), 1u);

    i4_semaphore verifying;
    files.onVerify = [&](const GiveUp& giveUp) {
        verifying.signal();
        while (!giveUp()) std::this_thread::yield();
    };
    thread.addPartial({});
    ask({dir});
    ASSERT_TRUE(verifying.wait(60'000));
    thread.stop();
    EXPECT_FALSE(thread.isFinished());
}

class BrokenFiles : public SharedFiles {
  public:
    bool importFile(FileMeta& file, const char* path, const char* name) override {
        if (name == "broken"s) {
            raised.signal();
            i4_error()("something that isn't a file's fault");
        }
        return SharedFiles::importFile(file, path, name);
    }
    i4_semaphore raised;
};

TEST_F(HashThreadTest, AnErrorEndsTheRunAndTheNextRequestStartsAnother) {
    const std::string dir = makeDirectory("dir");
    const std::string good = makeDirectory("good");
    write("dir/broken", "broken");
    write("good/good", "good");
    BrokenFiles broken;
    HashThread hasher(broken);
    hasher.hashDirs({dir.c_str(), good.c_str()});
    ASSERT_TRUE(broken.raised.wait(60'000));
    hasher.stop();
    EXPECT_FALSE(hasher.isFinished());
    EXPECT_THAT(events.take(), testing::EndsWith("Exception during hash."));
    EXPECT_EQ(broken.sharedFiles.count(), 0u);
    hasher.hashDirs({good.c_str()});
    ASSERT_TRUE(broken.published.wait(60'000));
    EXPECT_TRUE(hasher.isFinished());
    EXPECT_EQ(broken.sharedFiles.count(), 1u);
}

}  // namespace
