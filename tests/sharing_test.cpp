// Shared directories: share.dat, what is hashed, what is recognised, what is passed over and said.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <mutex>

#include "app/Preferences.h"
#include "app/StringTable.h"
#include "i4min/memory/error.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Process.h"
#include "tests/support/SharedFiles.h"
#include "tests/support/bytes.h"
#include "tests/support/files.h"
#include "tests/support/independent_digest.h"

namespace {

using std::string_literals::operator""s;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
namespace fs = std::filesystem;

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

std::vector<std::string> dirsOf(const ShareList& list) {
    std::vector<i4_string> dirs;
    list.copyTo(dirs);
    std::vector<std::string> texts;
    for (const i4_string& dir : dirs) texts.emplace_back(dir.view());
    return texts;
}

u32 secondsOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::stat(path.c_str(), &status), 0);
    return static_cast<u32>(status.st_mtime);
}
void setSeconds(const std::string& path, u32 seconds) {
    const timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
}

// A HashThread at work in a directory of its own; `dir` is there to be shared.
class Sharing : public testing::Test {
  protected:
    Sharing() {
        stringTable.reload("");
        preferences.sharePath = home.file("share.dat").c_str();
        preferences.knownPath = home.file("known.met").c_str();
        preferences.setIncoming(home.file("incoming").c_str());
        fs::create_directory(dir);
    }
    // Ends when a run over these directories has ended.
    void hash(const std::vector<std::string>& dirs) {
        events.takeNames();
        ask(dirs);
        ASSERT_TRUE(files.published.wait(60'000));
        EXPECT_TRUE(thread.isFinished());
    }
    // The same as the application does it, for which the shared list starts empty.
    void hashAnew(const std::vector<std::string>& dirs) {
        files.sharedFiles.clear();
        hash(dirs);
    }
    void ask(const std::vector<std::string>& dirs) {
        std::vector<i4_string> list;
        for (const std::string& path : dirs) list.emplace_back(path.c_str());
        thread.hashDirs(std::move(list));
    }
    // A run over this directory, in the middle of which a file is read that takes long.
    void askForLongWork(const std::string& first) {
        fs::create_directory(home.file("big"));
        writeFile(home.file("big/big"), "");
        fs::resize_file(home.file("big/big"), 4'294'967'295);  // nearly all of it a hole
        events.meanwhile = [this](const std::string& name) {
            if (name == "big") reading.signal();
        };
        ask({first, home.file("big")});
        ASSERT_TRUE(reading.wait(60'000));
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

    TemporaryDirectory home;
    const std::string dir = home.file("dir");
    i4_semaphore reading;
    HashEvents events;
    SharedFiles files;
    HashThread thread{files};
};

TEST_F(Sharing, TheListOfDirectoriesLastsAndTheIncomingOneIsAlwaysOnIt) {
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
    for (const char* gone : {incoming.c_str(), "/nothing", "/late", "/odd \xff:\\"}) list.removeDir(gone);
    list.addDir("/a");
    list.addDir("/bc");
    list.save();
    EXPECT_EQ(contentOf(home.file("share.dat")), "\x02\0/a\x03\0/bc"s);
    list.load();
    EXPECT_THAT(dirsOf(list), ElementsAre("/a", "/bc", incoming));
    EXPECT_THAT(events.take(), IsEmpty());

    const std::string damaged = "\x02\0/a\x03\0/b"s;
    writeFile(home.file("share.dat"), damaged);
    list.load();
    EXPECT_THAT(dirsOf(list), ElementsAre("/a", incoming));
    EXPECT_EQ(events.take(), "Error loading: " + home.file("share.dat") + "\n");
    EXPECT_FALSE(exists(home.file("share.dat")));
    EXPECT_EQ(contentOf(home.file("share.dat.bad")), damaged);
}

TEST_F(Sharing, FilesAreHashedInPartsOnceAndRecognisedFromThenOn) {
    const std::string bytes = someBytes(20'000'000);
    const std::size_t sizes[] = {0, 1, 9'727'999, 9'728'000, 9'728'001, 20'000'000};
    for (const std::size_t size : sizes)
        writeFile(dir + "/" + std::to_string(size) + ".iso", std::string_view(bytes).substr(0, size));
    hash({dir});
    EXPECT_EQ(events.take(), "Loading shared files...\nDone loading shared files.\n");
    EXPECT_EQ(events.takeNames().size(), std::size(sizes) + 1);
    EXPECT_EQ(files.sharedFiles.count(), std::size(sizes));
    for (const std::size_t size : sizes) {
        const std::string name = std::to_string(size) + ".iso";
        SCOPED_TRACE(name);
        const FileMeta* file = knownAs(name);
        ASSERT_TRUE(file);
        std::vector<MD4Hash> parts;
        EXPECT_EQ(file->hash, independentFileHash(std::string_view(bytes).substr(0, size),
                                                  home.file("independent"), parts));
        EXPECT_EQ(file->partHashes, parts);
        EXPECT_EQ(file->getSize(), size);
        EXPECT_EQ(file->path, (dir + "/" + name).c_str());
        EXPECT_EQ(file->date, secondsOf(dir + "/" + name));
        EXPECT_STREQ(file->getText(TAG_FORMAT), "iso");
    }

    // The second start.
    SharedFiles reloaded;
    ASSERT_EQ(reloaded.knownFiles.load(preferences.knownPath.c_str()), LoadResult::whole);
    HashThread second(reloaded);
    second.hashDirs({dir.c_str()});
    ASSERT_TRUE(reloaded.published.wait(60'000));
    EXPECT_THAT(events.takeNames(), ElementsAre("None."));
    EXPECT_EQ(reloaded.knownFiles.count(), std::size(sizes));
    EXPECT_EQ(reloaded.sharedFiles.count(), std::size(sizes));
    for (const FileMeta* file : reloaded.sharedFiles.snapshot()) {
        EXPECT_EQ(file->path.view(), dir + "/" + file->getName());
        EXPECT_EQ(file->hash, knownAs(file->getName())->hash);
    }
}

TEST_F(Sharing, KnownContentUnderAnotherNameTimeOrPlaceKeepsItsRecord) {
    const std::string other = dir + "/other";
    writeFile(dir + "/old.zip", "the same");
    setSeconds(dir + "/old.zip", 1'000'000);
    writeFile(dir + "/touched", "touched");
    writeFile(other + "/hidden", "in a directory that isn't shared yet");
    hash({dir});
    EXPECT_THAT(shared(), UnorderedElementsAre(dir + "/old.zip", dir + "/touched"));
    FileMeta* renamed = knownAs("old.zip");
    FileMeta* touched = knownAs("touched");
    ASSERT_TRUE(renamed && touched);
    fs::rename(dir + "/old.zip", dir + "/new");
    setSeconds(dir + "/touched", 2'000'000);
    hashAnew({dir});
    EXPECT_THAT(events.takeNames(), UnorderedElementsAre("new", "touched", "None."));
    EXPECT_THAT(files.sharedFiles.snapshot(), UnorderedElementsAre(renamed, touched));
    EXPECT_STREQ(renamed->getName(), "new");
    EXPECT_STREQ(renamed->getText(TAG_FORMAT), "zip") << "no importer has seen it again";
    EXPECT_EQ(touched->date, 2'000'000U);

    // A copy takes the record over, and the list has it twice; a directory inside another is one of its own.
    writeFile(other + "/copy", "the same");
    hashAnew({dir, other});
    EXPECT_THAT(events.takeNames(), UnorderedElementsAre("copy", "hidden", "None."));
    EXPECT_THAT(files.sharedFiles.snapshot(),
                UnorderedElementsAre(renamed, touched, renamed, knownAs("hidden")));
    EXPECT_EQ(renamed->path, (other + "/copy").c_str());
    EXPECT_EQ(files.knownFiles.find(8, secondsOf(other + "/copy"), "copy"), renamed) << "found by what it is";
    EXPECT_EQ(files.knownFiles.find(8, 1'000'000, "new"), nullptr);
}

TEST_F(Sharing, ACollectionIsSharedUnderTheRecordThatItBrings) {
    const std::string head = "\x0a\0collectio2\0\0\0\0"s;
    const std::string rest = "\0\0\2\0\0\0\2\1\0\1\3\0Set\2\1\0\3\3\0Col\x0e\0\0\0\0"s;
    writeFile(dir + "/set", head + std::string(16, 'Z') + rest);
    writeFile(dir + "/unhashed", head + std::string(16, 0) + rest);
    for (int run = 0; run < 2; ++run) {
        hashAnew({dir});
        EXPECT_THAT(shared(), ElementsAre(dir + "/set"));
        EXPECT_EQ(files.knownFiles.count(), 1U) << "the same each time";
        EXPECT_THAT(events.take(), HasSubstr("\nImport failed: unhashed\n"));
    }
    ASSERT_TRUE(knownAs("Set"));
    EXPECT_EQ(knownAs("Set")->hash, hashOf('Z'));
}

TEST_F(Sharing, WhatCantBeSharedIsPassedOverAndSaid) {
    const std::string gone = home.file("gone");
    ASSERT_EQ(::mkfifo((dir + "/fifo").c_str(), 0600), 0);
    fs::create_symlink("/dev/null", dir + "/device");
    fs::create_symlink(home.file("nothing"), dir + "/dangling");
    fs::create_symlink("/proc/self/mem", dir + "/unreadable");  // calls itself a regular file
    writeFile(dir + "/huge", "");
    fs::resize_file(dir + "/huge", 4'294'967'296);
    const std::string odd = "C: a\\b\xff\xfe%s.zip";
    writeFile(dir + "/" + odd, "abc");
    files.directories.setDirs({gone.c_str(), dir.c_str()});
    hash({gone, dir});
    EXPECT_THAT(shared(), ElementsAre(dir + "/" + odd));
    EXPECT_STREQ(files.sharedFiles.get(0)->getName(), odd.c_str());
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

TEST_F(Sharing, AFileThatChangesBeforeItIsReadIsNotShared) {
    for (const char* name : {"vanishes", "grows", "shrinks"})
        writeFile(dir + "/" + name, "content of "s + name);
    events.meanwhile = [&](const std::string& name) {
        if (name == "vanishes") fs::remove(dir + "/vanishes");
        if (name == "grows") writeFile(dir + "/grows", "content of a file that grows");
        if (name == "shrinks") fs::resize_file(dir + "/shrinks", 3);
    };
    hash({dir});
    EXPECT_EQ(files.knownFiles.count() + files.sharedFiles.count(), 0U);
    const std::string text = events.take();
    for (const char* name : {"vanishes", "grows", "shrinks"})
        EXPECT_THAT(text, HasSubstr("ERROR: Couldn't hash "s + name + "\n"));
    events.meanwhile = nullptr;
    hash({dir});
    EXPECT_THAT(shared(), UnorderedElementsAre(dir + "/grows", dir + "/shrinks"))
        << "the next run finds them";

    // Nor is a listing believed that has grown old over the reading of a file.
    for (const char* name : {"a", "b", "c", "d"}) writeFile(dir + "/" + name, name);
    hashAnew({dir});
    writeFile(dir + "/new", "has to be read");
    std::size_t before = 0;
    events.meanwhile = [&](const std::string& name) {
        if (name != "new") return;
        for (const char* other : {"a", "b", "c", "d", "grows", "shrinks"}) fs::remove(dir + "/" + other);
        before = shared().size();
    };
    hashAnew({dir});
    EXPECT_EQ(files.sharedFiles.count(), before + 1) << "what was still to come is gone";
}

TEST_F(Sharing, StoppingGivesUpTheFileAtHandAndKeepsWhatWasHashed) {
    writeFile(dir + "/small", "small");
    askForLongWork(dir);
    thread.stop();
    EXPECT_FALSE(thread.isFinished());
    EXPECT_FALSE(files.published.wait(1));
    EXPECT_EQ(files.knownFiles.count(), 1U) << "the big one wasn't read to its end";
    hash({dir});
    EXPECT_THAT(events.takeNames(), ElementsAre("None."));
    EXPECT_THAT(shared(), ElementsAre(dir + "/small")) << "once, though two runs have found it";
}

TEST_F(Sharing, ARequestNeverWaitsForTheFileAtHandNorForTheLastOnesEnd) {
    const std::string unshared = home.file("unshared");
    writeFile(dir + "/small", "small");
    writeFile(unshared + "/private", "private");
    askForLongWork(unshared);
    EXPECT_THAT(shared(), ElementsAre(unshared + "/private"));
    hash({dir});
    EXPECT_THAT(shared(), ElementsAre(dir + "/small")) << "nothing of the run that was given up";
    EXPECT_FALSE(knownAs("big"));
    EXPECT_TRUE(knownAs("private"));
    // Each comes while the thread that served the one before is just ending.
    for (int i = 0; i < 50; ++i) {
        hashAnew({dir});
        ASSERT_EQ(files.sharedFiles.count(), 1U) << i;
    }
}

// What is queued is a matter of the duties alone, so that it may as well be nothing.
TEST_F(Sharing, PartialFilesGoFirstAndAreGivenUpAtAStop) {
    writeFile(dir + "/small", "small");
    std::vector<std::size_t> sharedBefore;
    files.onVerify = [&](const GiveUp& giveUp) {
        EXPECT_FALSE(giveUp());
        sharedBefore.push_back(shared().size());
    };
    thread.addPartial({});
    thread.addPartial({});
    hash({dir});
    EXPECT_THAT(sharedBefore, ElementsAre(0U, 0U));
    EXPECT_EQ(files.sharedFiles.count(), 1U);

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
        if (name != "broken"s) return SharedFiles::importFile(file, path, name);
        raised.signal();
        i4_error()("something that isn't a file's fault");
        return false;
    }
    i4_semaphore raised;
};

TEST_F(Sharing, AnErrorEndsTheRunAndTheNextRequestStartsAnother) {
    const std::string good = home.file("good");
    writeFile(dir + "/broken", "broken");
    writeFile(good + "/good", "good");
    BrokenFiles broken;
    HashThread hasher(broken);
    hasher.hashDirs({dir.c_str(), good.c_str()});
    ASSERT_TRUE(broken.raised.wait(60'000));
    hasher.stop();
    EXPECT_FALSE(hasher.isFinished());
    EXPECT_THAT(events.take(), testing::EndsWith("Exception during hash."));
    EXPECT_EQ(broken.sharedFiles.count(), 0U);
    hasher.hashDirs({good.c_str()});
    ASSERT_TRUE(broken.published.wait(60'000));
    EXPECT_EQ(broken.sharedFiles.count(), 1U);
}

}  // namespace
