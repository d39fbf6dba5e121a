// Shared directories: share.dat, what is hashed, recognised, skipped and reported.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <thread>

#include "core/Preferences.h"
#include "i4min/memory/error.h"
#include "tests/support/HashedFiles.h"
#include "tests/support/OwnEngine.h"
#include "tests/support/bytes.h"
#include "tests/support/eventually.h"
#include "tests/support/files.h"
#include "tests/support/independent_digest.h"
#include "tests/support/systemDisk.h"

namespace {

using std::string_literals::operator""s;
using testing::_;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

// Records what is hashed, in order. `meanwhile` runs before the first byte of a file is read.
class HashEvents : public CapturedLog {
  public:
    void hashing(const char* name) override {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            names_ += std::string(name) + " ";
        }
        if (meanwhile) meanwhile(name);
    }
    std::string takeNames() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return std::exchange(names_, {});
    }

    std::function<void(const std::string& name)> meanwhile;

  private:
    std::mutex mutex_;
    std::string names_;
};

std::vector<i4_string> dirsOf(const ShareList& list) {
    std::vector<i4_string> dirs;
    list.copyTo(dirs);
    return dirs;
}

// A HashThread with its own directory `dir` to share, without an application, and a log of its events.
struct SharingEngine {
    HashEvents events;
    OwnEngine own{&events};
};

class Sharing : public testing::Test, protected SharingEngine, public HashedFiles {
  protected:
    Sharing() : HashedFiles(own.engine.core) {
        own.preferences.load();
        fs::create_directory(dir);
    }
    // Runs over these directories with an empty shared list, and waits for the end of the run.
    void hash(const std::vector<std::string>& dirs) {
        events.takeNames();
        sharedFiles.clear();
        ask(dirs);
        ASSERT_TRUE(published.wait(60'000));
        EXPECT_TRUE(thread.isFinished());
    }
    void ask(const std::vector<std::string>& dirs) {
        std::vector<i4_string> list;
        for (const std::string& path : dirs) list.emplace_back(path.c_str());
        thread.hashDirs(std::move(list));
    }
    // Starts a run over this directory, in which one file takes long to read.
    void askForLongWork(const std::string& first) {
        writeFile(home.file("big/big"), "");
        fs::resize_file(home.file("big/big"), 4'294'967'295);  // a single hole
        events.meanwhile = [&](const std::string& name) {
            if (name == "big") reading.signal();
        };
        ask({first, home.file("big")});
        ASSERT_TRUE(reading.wait(60'000));
    }
    // The paths of the shared files.
    std::vector<std::string> paths() const {
        std::vector<std::string> paths;
        for (const FileMeta* file : sharedFiles.snapshot()) paths.emplace_back(file->path.view());
        return paths;
    }
    FileMeta* knownAs(const std::string& name) const {
        for (FileMeta* file : knownFiles.snapshot()) {
            if (file->getName() == name) return file;
        }
        return nullptr;
    }

    const TemporaryDirectory& home = own.directory;
    const std::string dir = home.file("dir");
    i4_semaphore reading;
    HashThread thread{own.engine.core, events, *this};
};

TEST_F(Sharing, TheListOfDirectoriesLastsAndTheIncomingOneIsAlwaysOnIt) {
    const std::string incoming = home.file("incoming");
    const char* in = incoming.c_str();
    ShareList list(own.engine.core);
    list.load();
    EXPECT_THAT(dirsOf(list), ElementsAre(in)) << "without a file";
    list.setDirs({"/a", in, "/bc", "/a"});
    EXPECT_THAT(dirsOf(list), ElementsAre("/a", in, "/bc"));
    list.setDirs({"/odd\xff:\\"});
    for (const char* added : {"/late", in}) list.addDir(added);
    EXPECT_THAT(dirsOf(list), ElementsAre("/odd\xff:\\", in, "/late"));
    for (const char* gone : {in, "/nothing", "/late"}) list.removeDir(gone);
    list.save();
    EXPECT_EQ(contentOf(home.file("share.dat")), "\x07\0/odd\xff:\\"s);
    list.load();
    EXPECT_THAT(dirsOf(list), ElementsAre("/odd\xff:\\", in));
    writeFile(home.file("share.dat"), "\x02\0/a\x03\0/b"s);
    list.load();
    EXPECT_THAT(dirsOf(list), ElementsAre("/a", in));
    EXPECT_EQ(events.take(), "Error loading: " + home.file("share.dat") + "\n");
    EXPECT_TRUE(exists(home.file("share.dat.bad")));
}

TEST_F(Sharing, FilesAreHashedInPartsOnceAndRecognisedFromThenOn) {
    writeFile(dir + "/a.iso", someBytes(20'000'000));
    writeFile(dir + "/b.iso", "");
    hash({dir});
    EXPECT_EQ(events.take(), "Loading shared files...\nDone loading shared files.\n");
    const FileMeta* file = knownAs("a.iso");
    std::vector<MD4Hash> parts;
    EXPECT_EQ(file->hash, independentFileHash(someBytes(20'000'000), home.file("independent"), parts));
    EXPECT_EQ(file->partHashes, parts);
    EXPECT_EQ(file->getSize(), 20'000'000U);
    EXPECT_EQ(file->path, (dir + "/a.iso").c_str());
    EXPECT_STREQ(file->getText(TAG_FORMAT), "iso");

    // The next run, in this process and after a restart.
    hash({dir});
    EXPECT_EQ(events.takeNames(), "None. ");
    FileList reloaded{LockRank::knownFiles};
    ASSERT_EQ(reloaded.load(systemDisk(), own.preferences.knownPath.c_str()), LoadResult::whole);
    EXPECT_EQ(sharedFiles.count(), 2U);
    EXPECT_TRUE(reloaded.find(20'000'000, file->date, "a.iso"));
    reloaded.deleteAll();
}

TEST_F(Sharing, KnownContentUnderAnotherNameTimeOrPlaceKeepsItsRecord) {
    const std::string other = dir + "/other";
    writeFile(dir + "/old.zip", "the same");
    writeFile(dir + "/touched", "touched");
    writeFile(other + "/hidden", "in a directory that isn't shared yet");
    hash({dir});
    EXPECT_THAT(paths(), UnorderedElementsAre(dir + "/old.zip", dir + "/touched"));
    FileMeta* renamed = knownAs("old.zip");
    FileMeta* touched = knownAs("touched");
    fs::rename(dir + "/old.zip", dir + "/new");
    fs::last_write_time(dir + "/touched", fs::last_write_time(dir + "/touched") - std::chrono::hours(1));
    hash({dir});
    EXPECT_EQ(events.takeNames().size(), std::strlen("new touched None. "));
    EXPECT_THAT(sharedFiles.snapshot(), UnorderedElementsAre(renamed, touched));
    EXPECT_STREQ(renamed->getName(), "new");
    EXPECT_STREQ(renamed->getText(TAG_FORMAT), "zip") << "no importer has seen it again";

    // A copy replaces the record, and the list has it twice. A directory inside another is listed separately.
    fs::copy(dir + "/new", other + "/copy");
    hash({dir, other});
    EXPECT_EQ(events.takeNames().size(), std::strlen("copy hidden None. ")) << "found by what it is";
    EXPECT_THAT(sharedFiles.snapshot(), UnorderedElementsAre(renamed, touched, renamed, knownAs("hidden")));
    EXPECT_EQ(renamed->path, (other + "/copy").c_str());
}

// An empty collection that stores this hash.
std::string collectionOf(const MD4Hash& hash) {
    return "\x0a\0collectio2\0\0\0\0"s + bytesOf(hash) +
           "\0\0\2\0\0\0\2\1\0\1\3\0Set\2\1\0\3\3\0Col\x0e\0\0\0\0"s;
}

TEST_F(Sharing, ACollectionIsSharedUnderTheRecordThatItBrings) {
    writeFile(dir + "/set", collectionOf(hashOf('Z')));
    writeFile(dir + "/unhashed", collectionOf(MD4Hash()));
    for (int run = 0; run < 2; ++run) {
        hash({dir});
        EXPECT_THAT(paths(), ElementsAre(dir + "/set"));
        EXPECT_EQ(knownFiles.count(), 1U) << "the same each time";
        EXPECT_THAT(events.take(), HasSubstr("\nImport failed: unhashed\n"));
    }
    EXPECT_EQ(knownAs("Set")->hash, hashOf('Z'));
}

// A hash belongs to the file that has it, and among collections to the one that was there first.
TEST_F(Sharing, ACollectionThatClaimsAnothersHashLeavesItsRecordAlone) {
    writeFile(dir + "/film", "film");
    writeFile(dir + "/set", collectionOf(hashOf('Z')));
    hash({dir});
    const FileMeta* film = knownAs("film");
    const FileMeta* set = knownAs("Set");
    writeFile(home.file("more/claim"), collectionOf(film->hash));
    writeFile(home.file("more/other"), collectionOf(hashOf('Z')) + "other bytes");
    const std::string all[] = {dir + "/film", dir + "/set", home.file("more/claim"), home.file("more/other")};
    for (int run = 0; run < 2; ++run) {
        hash({dir, home.file("more")});
        EXPECT_THAT(paths(), testing::UnorderedElementsAreArray(all));
        EXPECT_EQ(sharedFiles.find(film->hash), film);
        EXPECT_EQ(sharedFiles.find(set->hash), set);
        EXPECT_EQ(knownFiles.count(), 4U);
        EXPECT_TRUE(knownAs("claim") && knownAs("other"));
    }
    // A file that is known but isn't there any more keeps its hash, too.
    fs::remove(dir + "/film");
    hash({dir, home.file("more")});
    EXPECT_EQ(sharedFiles.find(film->hash), nullptr);
    // Claimed before the file is known, the record becomes that of the file.
    std::vector<MD4Hash> parts;
    const MD4Hash late = independentFileHash("late", home.file("independent"), parts);
    writeFile(dir + "/early", collectionOf(late));
    hash({dir});
    writeFile(home.file("late/file"), "late");
    hash({dir, home.file("late")});
    EXPECT_EQ(sharedFiles.find(late)->path, home.file("late/file").c_str());
    EXPECT_EQ(sharedFiles.find(late)->getSize(), 4U);
    EXPECT_EQ(sharedFiles.find(late)->partHashes, parts);
}

TEST_F(Sharing, WhatCantBeSharedIsPassedOverAndSaid) {
    const std::string gone = home.file("gone");
    ASSERT_EQ(::mkfifo((dir + "/fifo").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", dir + "/device");
    fs::create_symlink(home.file("nothing"), dir + "/dangling");
    fs::create_symlink("/proc/self/mem", dir + "/unreadable");  // claims to be a regular file
    writeFile(dir + "/huge", "");
    fs::resize_file(dir + "/huge", 4'294'967'296);
    const std::string odd = "C: a\\b\xff\xfe%s.zip";
    writeFile(dir + "/" + odd, "abc");
    directories.setDirs({gone.c_str(), dir.c_str()});
    hash({gone, dir});
    EXPECT_THAT(paths(), ElementsAre(dir + "/" + odd));
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
    directories.load();
    EXPECT_THAT(dirsOf(directories), ElementsAre(dir.c_str(), _)) << "dropped for good";
}

TEST_F(Sharing, AFileThatChangesBeforeItIsReadIsNotShared) {
    for (const char* name : {"vanishes", "grows"}) writeFile(dir + "/" + name, "content");
    events.meanwhile = [&](const std::string& name) {
        if (name == "vanishes") fs::remove(dir + "/vanishes");
        if (name == "grows") writeFile(dir + "/grows", "content, and more");
    };
    hash({dir});
    const std::string text = events.take();
    for (const char* name : {"vanishes", "grows"})
        EXPECT_THAT(text, HasSubstr("Couldn't hash "s + name + "\n"));
    EXPECT_EQ(knownFiles.count() + sharedFiles.count(), 0U);
    events.meanwhile = nullptr;
    hash({dir});
    EXPECT_THAT(paths(), ElementsAre(dir + "/grows")) << "the next run finds it";

    // A listing isn't trusted if it is outdated because a file took long to read.
    const char* const others[] = {"a", "b", "c", "d", "grows"};
    for (const char* name : others) writeFile(dir + "/" + name, name);
    hash({dir});
    writeFile(dir + "/new", "has to be read");
    std::size_t before = 0;
    events.meanwhile = [&](const std::string& name) {
        if (name != "new") return;
        for (const char* other : others) fs::remove(dir + "/" + other);
        before = paths().size();
    };
    hash({dir});
    EXPECT_EQ(sharedFiles.count(), before + 1) << "what was still to come is gone";
}

TEST_F(Sharing, AStopAndARequestGiveUpTheFileAtHandAndKeepWhatWasHashed) {
    writeFile(dir + "/small", "small");
    askForLongWork(dir);
    thread.stop();
    EXPECT_FALSE(thread.isFinished());
    EXPECT_FALSE(published.wait(1));
    EXPECT_TRUE(knownAs("small") && !knownAs("big"));
    writeFile(home.file("unshared/private"), "private");
    askForLongWork(home.file("unshared"));
    ask({dir});
    ASSERT_TRUE(published.wait(60'000));
    EXPECT_THAT(paths(), ElementsAre(dir + "/small")) << "nothing of the run that was given up";
    EXPECT_TRUE(knownAs("private") && !knownAs("big"));
    // Each request arrives while the thread of the previous one is ending.
    for (int i = 0; i < 50; ++i) {
        hash({dir});
        ASSERT_EQ(sharedFiles.count(), 1U) << i;
    }
}

// Only the duties use the queued items, so they may be null.
TEST_F(Sharing, PartialFilesGoFirstAndAreGivenUpAtAStop) {
    writeFile(dir + "/small", "small");
    i4_semaphore verifying;
    std::atomic<bool> stays{false};
    onVerify = [&](const GiveUp& giveUp) {
        EXPECT_TRUE(paths().empty());
        verifying.signal();
        while (stays && !giveUp()) std::this_thread::yield();
    };
    for (int twice = 0; twice < 2; ++twice) thread.addPartial({});
    hash({dir});
    EXPECT_TRUE(verifying.wait(1) && verifying.wait(1));
    sharedFiles.clear();
    stays = true;
    thread.addPartial({});
    ask({dir});
    ASSERT_TRUE(verifying.wait(60'000));
    thread.stop();
    EXPECT_FALSE(thread.isFinished());
}

TEST_F(Sharing, AnErrorEndsTheRunAndTheNextRequestStartsAnother) {
    writeFile(dir + "/good", "good");
    std::string text;
    onImport = [] { i4_error()("something that isn't a file's fault"); };
    ask({dir});
    ASSERT_TRUE(eventually([&] { return (text += events.take()).ends_with("Exception during hash."); }));
    thread.stop();
    EXPECT_FALSE(thread.isFinished());
    onImport = nullptr;
    hash({dir});
    EXPECT_THAT(paths(), ElementsAre(dir + "/good"));
}

}  // namespace
