// Partial files: written in any order, verified, saved, loaded again after a crash, and moved to their final
// place.
#include <gmock/gmock.h>
#include <sys/resource.h>

#include <csignal>
#include <random>
#include <set>

#include "download/PartFileNamer.h"
#include "tests/support/Downloads.h"

namespace {

using testing::HasSubstr;
using namespace std::string_literals;
namespace fs = std::filesystem;

constexpr u32 piece = 184'320;

// The meta file of a one-part download with these missing ranges.
std::string metaOf(const RemoteFile& file, const std::string& dataFile, const std::vector<Gap>& missing) {
    const auto text = [](const char* name, const std::string& value) {
        return opcode(META_TAG_STRING, text16(name) + text16(value));
    };
    const auto number = [](const std::string& name, i64 value) {
        return opcode(META_TAG_INT, text16(name) + le32(static_cast<u32>(value)));
    };
    std::string tags = text("\1", file.record.getName()) + number("\2", file.size()) + number("\b", 7) +
                       text("\x12", dataFile) + number("\x13", 2) + number("\x14", 0);
    for (std::size_t k = 0; k < missing.size(); ++k) {
        tags += number("\t" + std::to_string(k), missing[k].start);
        tags += number("\n" + std::to_string(k), missing[k].end);
    }
    return "\xe0" + le32(0) + bytesOf(file.record.hash) + le16(0) + le32(6 + 2 * missing.size()) + tags;
}

std::string namesIn(const std::string& path) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(path)) names.insert(entry.path().filename());
    std::string text;
    for (const std::string& name : names) text += (text.empty() ? "" : " ") + name;
    return text;
}

class PartialFiles : public Downloads {
  protected:
    Ref<Download> verifyLoaded(const RemoteFile& file) {
        Ref<Download> download = dlPool.findAny(file.record.hash);
        if (download) download->verify({});
        handleMessages();
        return download;
    }
    FileMeta* shared(const RemoteFile& file) { return clientApp.shared.find(file.record.hash); }
};

TEST_F(PartialFiles, EndWholeInTheIncomingDirectoryWhateverTheOrder) {
    u32 seed = 0;
    for (const u32 size : {u32{0}, 3 * piece + 17, PARTSIZE, PARTSIZE + 1}) {
        const RemoteFile file("file" + std::to_string(size), size, ++seed);
        const Ref<Download> download = add(file);
        ASSERT_TRUE(download) << log.take();
        giveHashSet(*download, file.parts);
        std::vector<Gap> order = file.pieces(piece);
        std::shuffle(order.begin(), order.end(), std::mt19937(seed));
        for (const Gap& range : order) give(*download, file, range.start, range.end);
        EXPECT_TRUE(completes(download, file)) << size;
        ASSERT_TRUE(shared(file));
        EXPECT_EQ(shared(file)->path, download->partial().finalPath());
        EXPECT_NE(shared(file)->date, 0U);
    }
    EXPECT_EQ(namesIn(temp()), "");
}

TEST_F(PartialFiles, KeepWhatIsVerifiedWhateverElseIsSent) {
    const RemoteFile file("film.avi", 2 * PARTSIZE + 500);
    const u32 size = file.size();
    const Ref<Download> download = add(file);
    PartialFile& partial = download->partial();
    // Without hashes, or with hashes that don't belong to the file, all data counts as present.
    give(*download, file, 0, PARTSIZE);
    giveWrong(*download, PARTSIZE, 2 * PARTSIZE);
    giveHashSet(*download, {});
    giveHashSet(*download, {file.parts[0], file.parts[1]});
    giveHashSet(*download, {file.parts[0], file.parts[2], file.parts[1]});
    EXPECT_FALSE(partial.partHashesKnown());
    EXPECT_EQ(gaps(partial), "19456000-19456500");
    EXPECT_FALSE(shared(file));
    log.take();
    giveHashSet(*download, file.parts);
    give(*download, file, size - 500, size - 499);
    EXPECT_EQ(verified(*download), "100");
    EXPECT_EQ(gaps(partial), "9728000-19456000 19456001-19456500");
    EXPECT_THAT(log.take(), HasSubstr("film.avi at 1\n"));
    EXPECT_EQ(partial.transferred(), PARTSIZE + 1);
    ASSERT_TRUE(shared(file)) << "a first verified part is published";
    EXPECT_TRUE(shared(file)->path.isNull());

    // Wrong bytes for the verified part and the next one: only the next one accepts them.
    giveWrong(*download, 1000, PARTSIZE + 1000);
    give(*download, file, PARTSIZE + 500, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "100");
    for (int twice = 0; twice < 2; ++twice) give(*download, file, PARTSIZE - 500, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "110");

    // Invalid ranges, and fewer bytes than announced.
    log.take();
    log.setVerbose(true);
    for (const auto& [start, end] : std::vector<std::pair<u32, u32>>{{size - 10, size - 10},
                                                                     {5, 4},
                                                                     {size - 10, size + 1},
                                                                     {0, ~0U},
                                                                     {~0U, ~0U},
                                                                     {size - 500, size}}) {
        giveBytes(*download, start, end, std::string(499, 'x'));
        EXPECT_EQ(log.take(), "Crazy packet\n") << start << "-" << end;
    }
    EXPECT_EQ(gaps(partial), "19456001-19456500");
    give(*download, file, size - 500, size);
    EXPECT_TRUE(completes(download, file));
}

TEST_F(PartialFiles, EndCorruptedWhenTheWholeFails) {
    for (const int keep : {1, 0}) {
        preferences.saveCor = keep;
        const RemoteFile file(keep ? "kept.met" : "gone", 1000);
        const Ref<Download> download = add(file);
        save();
        giveWrong(*download, 0, 1000);
        waitUntilGone(download);
        EXPECT_EQ(download->getStatus(), DL_STATUS_CORRUPTED);
        EXPECT_EQ(download->partial().status(), PartialFile::gone);
        EXPECT_FALSE(shared(file));
    }
    // It keeps a name that the next start doesn't take for a meta file.
    EXPECT_EQ(namesIn(temp()) + "," + namesIn(incoming()), "kept.met_,");

    preferences.saveCor = 1;
    const Ref<Download> lost = add(RemoteFile("lost", 1000));
    const std::string path = dataFileOf(*lost);
    fs::remove(path);
    log.take();
    giveWrong(*lost, 0, 1000);
    waitUntilGone(lost);
    EXPECT_THAT(log.take(), HasSubstr("Corrupted Download: lost\n" + path + " could not be moved to "));
}

TEST_F(PartialFiles, LeaveNothingBehindWhenTheyAreCancelled) {
    const RemoteFile file("a", 2000);
    const Ref<Download> download = add(file);
    u8 got[500];
    give(*download, file, 0, 1000);
    EXPECT_EQ(download->partial().readData(got, 500, 1000), PartialFile::Read::unavailable) << "not verified";
    download->partial().publish();
    ASSERT_TRUE(shared(file));
    download->cancel();
    EXPECT_EQ(download->partial().readData(got, 0, 500), PartialFile::Read::gone);
    dlPool.republish();
    EXPECT_FALSE(shared(file)) << "made anew, the shared list gets it back no more";
    EXPECT_EQ(namesIn(temp()), "");
}

// --- Meta files

TEST_F(PartialFiles, SaveTheirMetaFileToTheByte) {
    RemoteFile file("film.avi", 1000);
    // Tags that only a meta file may have are dropped from a stranger's record.
    for (const char* name : {"\t0", "\n0"}) file.record.addTag(MetaTag::makeTag(name, piece));
    file.record.setInt(TAG_STATE, 1);
    file.record.setText(TAG_TEMPFILENAME, "../else");
    file.record.setInt(TAG_AVAILABILITY, 3);
    const Ref<Download> download = add(file);
    give(*download, file, 100, 107);
    download->priority = 2;
    save();
    const std::string data = dataFileOf(*download);
    const std::string expected = metaOf(file, fs::path(data).filename(), {{0, 100}, {107, 1000}});
    EXPECT_EQ(contentOf(data + ".met"), expected);
    restart();
    ASSERT_TRUE(verifyLoaded(file));
    fs::remove(data + ".met");
    save();
    EXPECT_EQ(contentOf(data + ".met"), expected) << "what was loaded is saved as it was";
}

TEST_F(PartialFiles, AreFoundAgainAndTheirPartsVerified) {
    const RemoteFile file("a", 2 * PARTSIZE + 10);
    Ref<Download> download = add(file);
    giveHashSet(*download, file.parts);
    give(*download, file, 0, 2 * PARTSIZE);
    restart();
    clientApp.shared.clear();
    download = dlPool.findAny(file.record.hash);
    const std::string data = dataFileOf(*download);
    // In the meantime a byte of the second part is changed.
    std::fstream(data, std::ios::in | std::ios::out).seekp(PARTSIZE + 5) << "?!";
    download->verify([] { return true; });
    EXPECT_EQ(download->getStatus(), DL_STATUS_HASHING) << "given up";
    EXPECT_FALSE(dlPool.find(file.record.hash) || dlPool.find(MD4Hash()))
        << "not to be found by its hash yet";
    verifyLoaded(file);
    EXPECT_TRUE(dlPool.find(file.record.hash));
    EXPECT_EQ(verified(*download), "100");
    EXPECT_EQ(gaps(download->partial()), "9728000-19456010");
    EXPECT_FALSE(download->partial().partHashesKnown()) << "they are asked for again all the same";
    EXPECT_TRUE(shared(file));
    // A file that is shortened during verification can't be verified.
    restart();
    fs::resize_file(data, 100);
    log.take();
    verifyLoaded(file);
    EXPECT_THAT(log.take(), testing::StartsWith("ERROR file couldn't be hashed: a \n"));
    EXPECT_EQ(dlPool.count(), 0);
    EXPECT_TRUE(exists(data) && exists(data + ".met"));
}

TEST_F(PartialFiles, ThatCannotBeLoadedAreNamedAndLeftAlone) {
    const RemoteFile good("good", 1000, 1);
    const RemoteFile missing("missing", 1000, 2);
    writeFile(temp("1.part"), std::string(1000, 'a'));
    fs::create_directory(temp("3.part"));
    const auto record = [](const char* name, const std::string& dataFile) {
        return metaOf(RemoteFile(name, 1000, static_cast<u32>(name[0])), dataFile, {{0, 500}});
    };
    const struct {
        const char* name;
        std::string bytes;
        const char* said;  // empty if it isn't one of our meta files
    } metas[] = {
        {"2.part.met", metaOf(missing, "2.part", {{0, 500}}), "2.part not found."},
        {"3.part.met", record("folder", "3.part"), "3.part Couldn't be opened."},
        {"4.part.met", record("hostile", "../outside"), "outside not found."},
        {"5.part.met", record("tricky", "1.part.met"), "1.part.met not found."},
        {"6.part.met", record("twin", "1.part"), "already downloading twin."},
        {"7.part.met", record("short", "1.part").substr(0, 60), "7.part.met\n"},
        {"8.part.met", "", "8.part.met\n"},
        {"foreign.met", "\x0e anything", ""},
        {".met", metaOf(missing, "1.part", {}), ""},
        {"CAPITALS.MET", metaOf(missing, "1.part", {}), ""},
    };
    writeFile(temp("1.part.met"), metaOf(good, "1.part", {{0, 500}}));
    for (const auto& meta : metas) writeFile(temp(meta.name), meta.bytes);
    load();
    const std::string said = log.take();
    for (const auto& meta : metas) EXPECT_THAT(said, HasSubstr(meta.said));
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 8) << said;
    EXPECT_EQ(gaps(dlPool.findAny(good.record.hash)->partial()), "0-500");
    // Neither a cancel nor a save changes what wasn't loaded.
    const Ref<Download> failed = dlPool.findAny(missing.record.hash);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->getStatus(), DL_STATUS_ERROR_LOADING);
    failed->cancel();
    handleMessages();
    EXPECT_TRUE(dlPool.findAny(missing.record.hash));
    save();
    for (const auto& meta : metas) EXPECT_EQ(contentOf(temp(meta.name)), meta.bytes) << meta.name;
}

TEST_F(PartialFiles, MissNoMoreThanTheyShould) {
    const RemoteFile file("a", 40'000);
    std::vector<Gap> many;
    for (i64 at = 0; at < 40'000; at += 4) many.push_back({at, at + 3});
    const struct {
        std::size_t length;  // of the data file
        std::vector<Gap> recorded;
        const char* expected;
    } rows[] = {
        {600, {{600, 40'000}}, "600-40000"},
        {600, {{200, 300}}, "200-300 600-40000"},  // the end was here,
        {600, {{700, 800}}, "600-40000"},          // but for some
        {40'000, {{300, 200}, {5, 5}, {900, 4'000'000'000}}, "900-40000"},
        {40'000, {{400, 600}, {0, 9}, {500, 700}, {300, 400}}, "300-700 0-9"},
        {40'000, many, "0-3 4-7 8-11 12-15 16-19 20-23 "},
    };
    for (const auto& [length, recorded, expected] : rows) {
        dlPool.stopAll(clientApp.partials());
        clientApp.partials().deleteAll();
        writeFile(temp("1.part"), file.bytes.substr(0, length));
        writeFile(temp("1.part.met"), metaOf(file, "1.part", recorded));
        load();
        EXPECT_EQ(gaps(verifyLoaded(file)->partial()).substr(0, 31), expected);
    }
    // With the maximum number of gaps, no packet creates another.
    const Ref<Download> download = dlPool.find(file.record.hash);
    dlPool.tick(500);
    download->tick(1);
    give(*download, file, 1, 2);
    EXPECT_TRUE(download->partial().overlaps(1, 2));
    give(*download, file, 0, 2);
    EXPECT_FALSE(download->partial().overlaps(0, 2));
}

// --- Disks

// While one exists, files can't grow beyond this size.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(u64 bytes) : oldHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
        ::getrlimit(RLIMIT_FSIZE, &old_);
        const rlimit limit{bytes, old_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }
    ~FileSizeLimit() {
        ::setrlimit(RLIMIT_FSIZE, &old_);
        std::signal(SIGXFSZ, oldHandler_);
    }

  private:
    rlimit old_{};
    void (*const oldHandler_)(int);
};

TEST_F(PartialFiles, KeepWhatIsVerifiedWhenTheDiskIsFull) {
    const RemoteFile file("big", 2 * PARTSIZE);
    const Ref<Download> download = add(file);
    giveHashSet(*download, file.parts);
    give(*download, file, 0, PARTSIZE);
    {
        const FileSizeLimit full(PARTSIZE + 1000);
        log.take();
        give(*download, file, PARTSIZE, PARTSIZE + 5000);
        save();
        EXPECT_THAT(log.take(), testing::StartsWith("Not all written(1000,5000): "));
        dlPool.tick(1);
        EXPECT_EQ(download->getStatus(), DL_STATUS_DISKFULL);
        EXPECT_EQ(gaps(download->partial()), "9729000-19456000");
        EXPECT_EQ(log.take(), "") << "said once";
    }
    dlPool.tick(60'000);
    dlPool.tick(500);
    EXPECT_EQ(verified(*download), "100");
    give(*download, file, PARTSIZE + 1000, 2 * PARTSIZE);
    EXPECT_TRUE(completes(download, file));
}

TEST_F(PartialFiles, TakeWhatFollowsOnEachOtherInBlocks) {
    const RemoteFile file("a", 400'000);
    const Ref<Download> download = add(file);
    const auto onDisk = [&] { return fs::file_size(dataFileOf(*download)); };
    for (u32 at = 0; at < 60'000; at += 10'000) give(*download, file, at, at + 10'000);
    EXPECT_EQ(onDisk(), 0u);
    give(*download, file, 60'000, 70'000);
    EXPECT_EQ(onDisk(), 65'536u) << "a block is whole";
    give(*download, file, 70'000, 70'500);
    give(*download, file, 90'000, 90'500);
    EXPECT_EQ(onDisk(), 70'500u) << "what comes elsewhere ends the waiting";
    for (u32 at = 100'000; at < 100'030; ++at) give(*download, file, at, at + 1);
    EXPECT_EQ(onDisk(), 100'016u) << "few packets wait, however small they are";
    give(*download, file, 100'030, 180'000);
    EXPECT_EQ(onDisk(), 180'000u) << "nor does a large one";
    give(*download, file, 180'000, 180'001);
    save();
    EXPECT_EQ(onDisk(), 180'001u);
}

TEST_F(PartialFiles, ComeBackFromAKillWithEveryPartThatWasVerifiedAtTheLastSave) {
    const RemoteFile file("a", 2 * PARTSIZE + 500);
    const Ref<Download> download = add(file);
    giveHashSet(*download, file.parts);
    std::vector<std::string> saved{"000"};
    for (const Gap& range : file.pieces(PARTSIZE / 4)) {
        if (saved.size() > 8) break;
        give(*download, file, range.start, range.end);
        if (saved.size() % 2 == 0) save();
        saved.push_back(saved.size() % 2 == 0 ? verified(*download) : saved.back());
        fs::copy(temp(), directory.file("killed" + std::to_string(saved.size() - 1)));
    }
    EXPECT_EQ(saved.back(), "110");
    for (std::size_t n = 2; n < saved.size(); ++n) {
        dlPool.stopAll(clientApp.partials());
        clientApp.partials().deleteAll();
        clientApp.shared.clear();
        fs::remove_all(temp());
        fs::rename(directory.file("killed" + std::to_string(n)), temp());
        load();
        const Ref<Download> again = verifyLoaded(file);
        ASSERT_TRUE(again) << n << log.take();
        EXPECT_GE(verified(*again), saved[n]) << n;
    }
}

// --- Names and moves

TEST(SafeFileNames, AreOnePlainComponent) {
    const std::string long300(300, 'x');
    std::string umlauts;
    while (umlauts.size() < 400) umlauts += "ä";
    const std::pair<std::string, std::string> rows[] = {
        {"a b (c) [d] é.txt", "a b (c) [d] é.txt"},
        {"..\\..\\boot.ini", "boot.ini"},
        {"C:\\dir/x", "x"},
        {"dir/", "_"},
        {"..", "_"},
        {".", "_"},
        {"", "_"},
        {".hidden", ".hidden"},
        {"a\nb\x1b[2J\x7f", "a_b_[2J_"},
        {long300, long300.substr(45)},
        {"x." + long300, "x." + long300.substr(47)},
        {long300 + ".avi", long300.substr(49) + ".avi"},
        {umlauts + ".avi", umlauts.substr(0, 250) + ".avi"},  // never inside a character
    };
    for (const auto& [name, expected] : rows) EXPECT_EQ(safeFileName(name.c_str()).c_str(), expected);
    EXPECT_STREQ(safeFileName(nullptr).c_str(), "_");
}

TEST_F(PartialFiles, NeverTakeTheNameOfAFileThatExists) {
    writeFile(incoming("movie.avi"), "mine");
    fs::create_symlink("/nowhere", incoming("2_movie.avi"));
    for (int n = 3; n <= 99; ++n) writeFile(incoming(std::to_string(n) + "_movie.avi"), "mine");
    const RemoteFile file("../../movie.avi", 1000);
    const Ref<Download> download = add(file);
    give(*download, file);
    waitUntilGone(download);
    EXPECT_TRUE(hasBytes(incoming("100_movie.avi"), file.bytes));
    EXPECT_EQ(contentOf(incoming("movie.avi")) + contentOf(incoming("99_movie.avi")), "minemine");

    // The next temp name must be free of a meta file, too.
    i4_string name;
    engine.partFileNamer.makeTempName(name);
    const int last = std::atoi(name.c_str());
    writeFile(temp(std::to_string(last + 1) + ".part.met"), "");
    engine.partFileNamer.makeTempName(name);
    EXPECT_EQ(name.c_str(), std::to_string(last + 2) + ".part");
}

TEST_F(PartialFiles, StayWhereTheyAreWhenTheyCannotBeMoved) {
    const RemoteFile file("a", 1000);
    const Ref<Download> download = add(file);
    fs::remove(incoming());
    give(*download, file);
    waitUntilGone(download);
    const std::string data = dataFileOf(*download);
    EXPECT_THAT(log.take(), HasSubstr(data + " could not be moved to " + incoming("a") + "\n"));
    EXPECT_EQ(download->getStatus(), DL_STATUS_COMPLETE);
    EXPECT_TRUE(hasBytes(data, file.bytes) && !exists(data + ".met"));
    EXPECT_EQ(shared(file)->path, data.c_str());
}

TEST_F(PartialFiles, CrossFileSystemsWhole) {
    const TemporaryDirectory other("/dev/shm");
    const std::string source = temp("9.part");
    const RemoteFile file("a", 3'000'000);
    writeFile(source, file.bytes);
    if (::rename(source.c_str(), other.file("9.part").c_str()) == 0) GTEST_SKIP() << "one file system only";
    preferences.setIncoming(other.path().c_str());
    writeFile(other.file("a"), "mine");
    const Ref<Download> download = add(file);
    give(*download, file);
    waitUntilGone(download);
    EXPECT_TRUE(hasBytes(other.file("2_a"), file.bytes));
    EXPECT_EQ(namesIn(temp()), "9.part");

    // A cancelled copy changes nothing. If the copy doesn't fit, the file stays and the reason is printed.
    i4_string path;
    int asked = 0;
    EXPECT_FALSE(engine.partFileNamer.moveFile(source.c_str(), "c", other.path().c_str(), path,
                                               [&] { return ++asked > 1; }));
    log.take();
    {
        const FileSizeLimit full(2'000'000);
        EXPECT_TRUE(engine.partFileNamer.moveFile(source.c_str(), "c", other.path().c_str(), path));
    }
    EXPECT_EQ(path, source.c_str());
    EXPECT_THAT(log.take(), HasSubstr("could not be moved to"));
    EXPECT_TRUE(hasBytes(source, file.bytes));
    EXPECT_EQ(namesIn(other.path()), "2_a a");
}

// --- The end of the program

TEST_F(PartialFiles, ThatWereCompletingWhenTheProgramEndedCompleteAtTheNextStart) {
    const RemoteFile file("a", 5000);
    writeFile(temp("1.part"), file.bytes);
    writeFile(temp("1.part.met"), metaOf(file, "1.part", {}));
    load();
    const Ref<Download> download = verifyLoaded(file);
    ASSERT_TRUE(download);
    EXPECT_EQ(download->partial().complete([] { return true; }), PartialFile::Completion::abandoned);
    EXPECT_EQ(namesIn(temp()), "1.part 1.part.met");
    dlPool.sourceStarted();  // no source may start, and it needs none
    download->tick(1);
    EXPECT_EQ(download->getStatus(), DL_STATUS_COMPLETING);
    EXPECT_TRUE(completes(download, file));
    EXPECT_EQ(namesIn(temp()), "");
}

}  // namespace
