// Files on their way in: written in any order, verified, saved, found again after a crash, and moved to their
// place.
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <map>

#include "download/PartFileNamer.h"
#include "tests/support/Downloads.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using namespace std::string_literals;
namespace fs = std::filesystem;

constexpr u32 piece = 184'320;

std::string textTag(const std::string& name, const std::string& text) {
    return opcode(META_TAG_STRING, text16(name) + text16(text));
}
std::string intTag(const std::string& name, u32 value) {
    return opcode(META_TAG_INT, text16(name) + le32(value));
}
// The k-th gap.
std::string gapTags(std::size_t k, i64 start, i64 end) {
    return intTag("\t" + std::to_string(k), static_cast<u32>(start)) +
           intTag("\n" + std::to_string(k), static_cast<u32>(end));
}

// The meta file of a one-part download that misses the given ranges.
std::string metaOf(const RemoteFile& file, const std::string& dataFile, const std::vector<Gap>& missing) {
    std::string tags = textTag("\1", file.record.getName()) + intTag("\2", file.size()) + intTag("\b", 7) +
                       textTag("\x12", dataFile) + intTag("\x13", 2) + intTag("\x14", 0);
    for (std::size_t k = 0; k < missing.size(); ++k) tags += gapTags(k, missing[k].start, missing[k].end);
    return "\xe0" + le32(0) + bytesOf(file.record.hash) + le16(0) + le32(6 + 2 * missing.size()) + tags;
}

std::vector<std::string> namesIn(const std::string& path) {
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(path)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

class PartialFiles : public Downloads {
  protected:
    static Ref<Download> verifyLoaded(const RemoteFile& file) {
        Ref<Download> download = dlPool.findByRecord(file.record.hash);
        if (download) download->verify({});
        handleMessages();
        return download;
    }
    static FileMeta* shared(const RemoteFile& file) { return clientApp.shared.find(file.record.hash); }
    static PartialFile::Read read(const Download& download, std::string& into, u32 start, u32 end) {
        return download.partial().readData(reinterpret_cast<u8*>(into.data()), start, end);
    }
};

TEST_F(PartialFiles, EndWholeInTheIncomingDirectoryWhateverTheOrder) {
    u32 seed = 0;
    for (const u32 size :
         {u32{0}, u32{1}, 3 * piece + 17, PARTSIZE - 1, PARTSIZE, PARTSIZE + 1, 2 * PARTSIZE + 12'345}) {
        const std::string name = "file" + std::to_string(size);
        SCOPED_TRACE(name);
        const RemoteFile file(name, size, ++seed);
        const Ref<Download> download = add(file);
        ASSERT_TRUE(download) << log.take();
        giveHashSet(*download, file.parts);
        std::vector<Gap> order = file.pieces(piece);
        if (seed % 3 == 0) std::reverse(order.begin(), order.end());
        if (seed % 3 == 1) std::shuffle(order.begin(), order.end(), std::mt19937(seed));
        for (const Gap& range : order) give(*download, file, range.start, range.end);
        waitUntilGone(download);
        EXPECT_EQ(download->getStatus(), DL_STATUS_COMPLETE);
        EXPECT_TRUE(hasBytes(incoming(name), file.bytes));
        EXPECT_EQ(verified(*download), std::string(size / PARTSIZE + 1, size >= PARTSIZE ? '1' : '0'))
            << "only the parts of a longer file are checked alone";
        ASSERT_TRUE(shared(file));
        EXPECT_EQ(shared(file)->path, incoming(name).c_str());
        EXPECT_NE(shared(file)->date, 0U);
    }
    EXPECT_THAT(namesIn(temp()), IsEmpty());
}

TEST_F(PartialFiles, KeepWhatIsVerifiedWhateverElseIsSent) {
    const RemoteFile file("film.avi", 2 * PARTSIZE + 500);
    const Ref<Download> download = add(file);
    giveHashSet(*download, file.parts);
    const PartialFile& partial = download->partial();

    giveWrong(*download, 0, PARTSIZE);
    EXPECT_THAT(log.take(), HasSubstr("film.avi at 0\n"));
    EXPECT_EQ(gaps(partial), "0-19456500");
    EXPECT_EQ(partial.transferred(), 0U);
    EXPECT_FALSE(shared(file));

    give(*download, file, 0, PARTSIZE);
    EXPECT_EQ(verified(*download), "100");
    ASSERT_TRUE(shared(file)) << "a first verified part is published";
    EXPECT_TRUE(shared(file)->path.isNull());

    // Wrong bytes over the verified part and into the next one: only the next one takes them.
    giveWrong(*download, 1000, PARTSIZE + 1000);
    EXPECT_EQ(partial.transferred(), 2 * PARTSIZE);
    give(*download, file, PARTSIZE + 500, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "100");
    for (int twice = 0; twice < 2; ++twice) give(*download, file, PARTSIZE - 500, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "110");

    // Ranges that make no sense, and fewer bytes than promised.
    log.take();
    log.verbose = 1;
    const u32 size = file.size();
    const std::pair<u32, u32> crazy[] = {{size - 10, size - 10}, {size, size},      {5, 4},
                                         {size - 10, size + 1},  {0, 0xFFFFFFFF},   {0xFFFFFFFF, 0xFFFFFFFF},
                                         {size + 1, size + 2},   {size - 500, size}};
    for (const auto& [from, to] : crazy) {
        giveBytes(*download, from, to, std::string(499, 'x'));
        EXPECT_EQ(log.take(), "Crazy packet\n") << from << "-" << to;
    }
    EXPECT_EQ(gaps(partial), "19456000-19456500");
    EXPECT_EQ(download->getStatus(), DL_STATUS_LOOKING);
    give(*download, file, size - 500, size);
    waitUntilGone(download);
    EXPECT_TRUE(hasBytes(incoming("film.avi"), file.bytes));
}

TEST_F(PartialFiles, VerifyPartsThatWereCompleteBeforeTheirHashesCame) {
    const RemoteFile file("a", 3 * PARTSIZE);
    const Ref<Download> download = add(file);
    PartialFile& partial = download->partial();
    ASSERT_EQ(partial.getPartCount(), 4U) << "the last one is empty";
    give(*download, file, 0, PARTSIZE);
    giveWrong(*download, PARTSIZE, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "0000");
    // None of these belongs to the file.
    giveHashSet(*download, {});
    giveHashSet(*download, {file.parts[0], file.parts[1], file.parts[2]});
    giveHashSet(*download, {file.parts[0], file.parts[1], file.parts[3], file.parts[2]});
    EXPECT_FALSE(partial.partHashesKnown());
    giveHashSet(*download, file.parts);
    give(*download, file, 2 * PARTSIZE, 2 * PARTSIZE + 1);
    EXPECT_EQ(verified(*download), "1000");
    EXPECT_EQ(gaps(partial), "19456001-29184000 9728000-19456000");
    give(*download, file, 2 * PARTSIZE + 1, 3 * PARTSIZE);
    EXPECT_EQ(verified(*download), "1011");
    u32 from = 0;
    u32 to = 0;
    const BoolArray all = partsOf("1111");
    ASSERT_TRUE(download->progress().pickChunk(&all, from, to)) << "the part that failed can be asked for";
    EXPECT_EQ(from, PARTSIZE);
    EXPECT_EQ(to, PARTSIZE + piece);
    giveWrong(*download, PARTSIZE, 2 * PARTSIZE);
    EXPECT_THAT(partial.takeReopened(), IsEmpty()) << "the sources were told";
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
    EXPECT_THAT(namesIn(incoming()), IsEmpty());
    // Under its own name, which the next start doesn't take for a meta file.
    EXPECT_THAT(namesIn(temp()), ElementsAre("kept.met_"));
}

TEST_F(PartialFiles, AreReadByUploadsUntilTheyMoveOrGo) {
    const RemoteFile file("a", 2000);
    const Ref<Download> download = add(file);
    std::string got(500, ' ');
    give(*download, file, 0, 1000);
    EXPECT_EQ(read(*download, got, 400, 900), PartialFile::Read::ok);
    EXPECT_EQ(got, file.bytes.substr(400, 500));
    for (const auto& [start, end] : {Gap{600, 1001}, Gap{900, 400}, Gap{1900, 2400}}) {
        EXPECT_EQ(read(*download, got, static_cast<u32>(start), static_cast<u32>(end)),
                  PartialFile::Read::unavailable);
    }
    EXPECT_TRUE(download->partial().finalPath().isNull());
    give(*download, file, 1000, 2000);
    waitUntilGone(download);
    EXPECT_EQ(read(*download, got, 0, 500), PartialFile::Read::moved);
    EXPECT_EQ(download->partial().finalPath(), incoming("a").c_str());

    const RemoteFile other("b", 2000, 2);
    const Ref<Download> cancelled = add(other);
    give(*cancelled, other, 0, 1000);
    EXPECT_EQ(read(*cancelled, got, 0, 500), PartialFile::Read::ok);
    cancelled->cancel();
    EXPECT_EQ(read(*cancelled, got, 0, 500), PartialFile::Read::gone);
    dlPool.republish();
    EXPECT_FALSE(shared(other)) << "made anew, the shared list gets it back no more";
    EXPECT_THAT(namesIn(temp()), IsEmpty());
}

// --- meta files

TEST_F(PartialFiles, SaveTheirMetaFileToTheByte) {
    RemoteFile file("film.avi", PARTSIZE + 1000);
    file.record.setText(TAG_TYPE, "Video");
    // What only a meta file tells is not taken from a stranger's record.
    for (const char* name : {"\t0", "\n0"}) file.record.addTag(MetaTag::makeTag(META_TAG_INT, name, &piece));
    file.record.setInt(TAG_STATE, 1);
    file.record.setText(TAG_TEMPFILENAME, "../else");
    file.record.setInt(TAG_AVAILABILITY, 3);
    const Ref<Download> download = add(file);
    giveHashSet(*download, file.parts);
    give(*download, file, 100, 1000);
    give(*download, file, PARTSIZE, PARTSIZE + 10);
    download->priority = 2;
    download->pause();
    save();
    const std::string dataFile = download->partial().tempFileName().c_str();
    const std::string expected = "\xe0" + le32(0) + bytesOf(file.record.hash) + le16(2) +
                                 bytesOf(file.parts[0]) + bytesOf(file.parts[1]) + le32(13) +
                                 textTag("\1", "film.avi") + intTag("\2", PARTSIZE + 1000) +
                                 textTag("\3", "Video") + intTag("\b", 910) + textTag("\x12", dataFile) +
                                 intTag("\x13", 2) + intTag("\x14", 1) + gapTags(0, 0, 100) +
                                 gapTags(1, 1000, PARTSIZE) + gapTags(2, PARTSIZE + 10, PARTSIZE + 1000);
    EXPECT_EQ(contentOf(temp(dataFile + ".met")), expected);
    restart();
    EXPECT_EQ(contentOf(temp(dataFile + ".met")), expected) << "the program's end writes the same";
    const Ref<Download> again = verifyLoaded(file);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getStatus(), DL_STATUS_PAUSED);
    EXPECT_EQ(again->priority, 2);
    EXPECT_EQ(again->partial().transferred(), 910U);
    save();
    EXPECT_EQ(contentOf(temp(dataFile + ".met")), expected) << "what was loaded is saved as it was";
}

TEST_F(PartialFiles, AreFoundAgainAndTheirPartsVerified) {
    const RemoteFile file("a", 2 * PARTSIZE + 10);
    Ref<Download> download = add(file);
    giveHashSet(*download, file.parts);
    give(*download, file, 0, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "110");
    restart();
    clientApp.shared.clear();
    download = dlPool.findByRecord(file.record.hash);
    // Meanwhile somebody has changed a byte of the second part.
    std::fstream(dataFileOf(*download), std::ios::in | std::ios::out).seekp(PARTSIZE + 5) << "?!";
    verifyLoaded(file);
    EXPECT_EQ(verified(*download), "100");
    EXPECT_EQ(gaps(download->partial()), "9728000-19456010");
    EXPECT_FALSE(download->partial().partHashesKnown()) << "they are asked for again all the same";
    EXPECT_TRUE(shared(file));
    dlPool.tick(500);
    download->tick(1);
    give(*download, file, PARTSIZE, file.size());
    waitUntilGone(download);
    EXPECT_TRUE(hasBytes(incoming("a"), file.bytes));
    EXPECT_THAT(namesIn(temp()), IsEmpty());
}

TEST_F(PartialFiles, ThatCannotBeLoadedAreNamedAndLeftAlone) {
    const RemoteFile good("good", 1000, 1);
    const RemoteFile missing("missing", 1000, 2);
    writeFile(temp("1.part"), std::string(1000, 'a'));
    fs::create_directory(temp("3.part"));
    const auto record = [](const char* name, const std::string& dataFile) {
        return metaOf(RemoteFile(name, 1000, static_cast<u32>(name[0])), dataFile, {{0, 500}});
    };
    const std::map<std::string, std::string> metas{
        {"2.part.met", metaOf(missing, "2.part", {{0, 500}})},
        {"3.part.met", record("folder", "3.part")},
        {"4.part.met", record("hostile", "../outside")},
        {"5.part.met", record("tricky", "1.part.met")},
        {"6.part.met", record("twin", "1.part")},
        {"7.part.met", metaOf(good, "1.part", {{0, 500}}).substr(0, 60)},
        {"8.part.met", ""},
        {"9.part.met", "\xe0" + le32(0) + bytesOf(good.record.hash) + le16(0) + le32(0)},
        {"foreign.met", "\x0e anything"},
        {".met", metaOf(missing, "1.part", {})},
        {"CAPITALS.MET", metaOf(missing, "1.part", {})},
    };
    writeFile(temp("1.part.met"), metaOf(good, "1.part", {{0, 500}}));
    for (const auto& [name, bytes] : metas) writeFile(temp(name), bytes);
    load();
    const std::string said = log.take();
    for (const char* text :
         {"2.part not found.", "3.part Couldn't be opened.", "outside not found.", "1.part.met not found.",
          "already downloading twin.", "Error loading: ", "7.part.met\n", "8.part.met\n", "9.part.met\n"}) {
        EXPECT_THAT(said, HasSubstr(text));
    }
    for (const char* text : {"foreign", ".MET", "/.met"}) EXPECT_THAT(said, testing::Not(HasSubstr(text)));
    EXPECT_EQ(gaps(dlPool.findByRecord(good.record.hash)->partial()), "0-500");
    // Neither a cancel nor a save touches what didn't load.
    const Ref<Download> failed = dlPool.findByRecord(missing.record.hash);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->getStatus(), DL_STATUS_ERROR_LOADING);
    failed->cancel();
    handleMessages();
    EXPECT_TRUE(dlPool.findByRecord(missing.record.hash));
    save();
    for (const auto& [name, bytes] : metas) EXPECT_EQ(contentOf(temp(name)), bytes) << name;
}

TEST_F(PartialFiles, MissNoMoreThanTheyShould) {
    const struct {
        const char* name;
        std::size_t length;  // of the data file
        std::vector<Gap> recorded;
        const char* expected;
    } rows[] = {
        {"whole", 1000, {{200, 300}}, "200-300"},
        {"what is missing lies at the end", 600, {{600, 1000}}, "600-1000"},
        {"the end was here", 600, {{200, 300}}, "200-300 600-1000"},
        {"the end was here, but for some", 600, {{700, 800}}, "600-1000"},
        {"empty", 0, {}, "0-1000"},
        {"gaps that are none", 1000, {{300, 200}, {5, 5}, {900, 4'000'000'000}}, "900-1000"},
    };
    const RemoteFile file("a", 1000);
    const auto lay = [&](std::size_t length, const std::vector<Gap>& missing) {
        dlPool.stopAll();
        clientApp.partials().deleteAll();
        writeFile(temp("1.part"), file.bytes.substr(0, length));
        writeFile(temp("1.part.met"), metaOf(file, "1.part", missing));
        load();
        return dlPool.findByRecord(file.record.hash);
    };
    for (const auto& row : rows) {
        const Ref<Download> download = lay(row.length, row.recorded);
        ASSERT_TRUE(download) << row.name;
        EXPECT_EQ(gaps(download->partial()), row.expected) << row.name;
        EXPECT_EQ(download->partial().fileEnd(), row.length) << row.name;
    }
    // With gaps enough, no packet makes another.
    const Ref<Download> download = lay(0, std::vector<Gap>(10'000, Gap{0, 1000}));
    verifyLoaded(file);
    dlPool.tick(500);
    download->tick(1);
    give(*download, file, 500, 501);
    EXPECT_TRUE(download->partial().overlaps(500, 501));
    give(*download, file, 0, 501);
    EXPECT_FALSE(download->partial().overlaps(0, 501));
}

// --- disks

// Files can't grow past so many bytes while one lives.
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
        EXPECT_THAT(log.take(), testing::StartsWith("Not all written(1000,5000): "));
        give(*download, file, PARTSIZE + 5000, PARTSIZE + 6000);
        EXPECT_EQ(log.take(), "") << "said once";
        save();
    }
    give(*download, file, PARTSIZE + 6000, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "100");
    EXPECT_EQ(gaps(download->partial()), "9728000-19456000");
    give(*download, file, PARTSIZE, 2 * PARTSIZE);
    waitUntilGone(download);
    EXPECT_TRUE(hasBytes(incoming("big"), file.bytes));
}

// What the parent sees of a child that it kills.
struct Progress {
    std::atomic<u32> pieces{0};
    std::atomic<i32> verifiedAtSave{-1};  // so many parts; none was saved before
};

// The child fetches the file and saves after every second piece.
TEST_F(PartialFiles, ComeBackWithEveryVerifiedPartAfterAKillAtAnyMoment) {
    const RemoteFile file("a", 2 * PARTSIZE + 3'000'000);
    const std::vector<Gap> pieces = file.pieces(PARTSIZE / 8);
    const auto count = [](const Ref<Download>& download) {
        const std::string flags = verified(*download);
        return static_cast<i32>(std::count(flags.begin(), flags.end(), '1'));
    };
    std::mt19937 random(7);
    int withParts = 0;
    for (u32 round = 0; round < 50; ++round) {
        SCOPED_TRACE(round);
        fs::remove_all(temp());
        fs::create_directory(temp());
        void* page =
            ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        auto* progress = new (page) Progress;
        const u32 until = static_cast<u32>(random() % pieces.size()) + 1;
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const Ref<Download> download = add(file);
            giveHashSet(*download, file.parts);
            for (const Gap& range : pieces) {
                if (range.start > 0 && progress->pieces % 2 == 0) {
                    save();
                    progress->verifiedAtSave = count(download);
                }
                give(*download, file, range.start, range.end);
                ++progress->pieces;
            }
            for (;;) ::pause();
        }
        int status = 0;
        while (progress->pieces < until && ::waitpid(child, &status, WNOHANG) == 0) ::sched_yield();
        for (u32 spin = static_cast<u32>(random()) % 200'000; spin > 0; --spin)
            std::atomic_signal_fence(std::memory_order_seq_cst);
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status));
        const i32 saved = progress->verifiedAtSave;
        ::munmap(page, sizeof(Progress));
        if (saved < 0) continue;
        load();
        const Ref<Download> download = verifyLoaded(file);
        ASSERT_TRUE(download) << log.take();
        EXPECT_GE(count(download), saved);
        withParts += saved > 0 ? 1 : 0;
        dlPool.stopAll();
        clientApp.partials().deleteAll();
        clientApp.shared.clear();
    }
    EXPECT_GT(withParts, 10) << "most rounds had nothing to lose";
}

// --- names and moves

TEST(SafeFileNames, AreOnePlainComponent) {
    const std::string long300(300, 'x');
    std::string umlauts;
    for (int i = 0; i < 200; ++i) umlauts += "ä";
    const std::pair<std::string, std::string> rows[] = {
        {"a b (c) [d] é.txt", "a b (c) [d] é.txt"},
        {"/etc/passwd", "passwd"},
        {"..\\..\\boot.ini", "boot.ini"},
        {"C:\\dir/x", "x"},
        {"dir/", "_"},
        {"..", "_"},
        {".", "_"},
        {"", "_"},
        {"a/..", "_"},
        {"...", "..."},
        {".hidden", ".hidden"},
        {"a\nb\x1b[2J\x7f", "a_b_[2J_"},
        {long300, std::string(255, 'x')},
        {long300 + ".avi", std::string(251, 'x') + ".avi"},
        {umlauts + ".avi", umlauts.substr(0, 250) + ".avi"},  // never inside a character
    };
    for (const auto& [name, expected] : rows) EXPECT_EQ(safeFileName(name.c_str()).c_str(), expected);
    EXPECT_STREQ(safeFileName(nullptr).c_str(), "_");
    EXPECT_EQ(safeFileName(("x." + long300).c_str()).length(), 255U);
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
    for (const char* name : {"movie.avi", "3_movie.avi", "99_movie.avi"})
        EXPECT_EQ(contentOf(incoming(name)), "mine");

    // The next temp name is one whose meta file doesn't lie there either.
    i4_string name;
    partFileNamer.makeTempName(name);
    const int last = std::atoi(name.c_str());
    writeFile(temp(std::to_string(last + 1) + ".part"), "");
    writeFile(temp(std::to_string(last + 2) + ".part.met"), "");
    partFileNamer.makeTempName(name);
    EXPECT_EQ(name.c_str(), std::to_string(last + 3) + ".part");
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
    EXPECT_TRUE(hasBytes(data, file.bytes));
    EXPECT_FALSE(exists(data + ".met"));
    EXPECT_EQ(shared(file)->path, data.c_str());
}

// A directory on another file system than the temporary one; empty where this machine has none to offer.
class OtherFileSystem {
  public:
    explicit OtherFileSystem(const std::string& here) {
        char name[] = "/dev/shm/tarnwick-test-XXXXXX";
        struct stat a {};
        struct stat b {};
        if (!::mkdtemp(name)) return;
        path = name;
        if (::stat(name, &a) == 0 && ::stat(here.c_str(), &b) == 0 && a.st_dev != b.st_dev) return;
        fs::remove_all(name);
        path.clear();
    }
    ~OtherFileSystem() {
        if (!path.empty()) fs::remove_all(path);
    }
    std::string path;
};

TEST_F(PartialFiles, CrossFileSystemsWhole) {
    const OtherFileSystem other(directory.path());
    if (other.path.empty()) GTEST_SKIP() << "this machine has one file system only";
    preferences.setIncoming(other.path.c_str());
    writeFile(other.path + "/a", "mine");
    const RemoteFile file("a", 3'000'000);
    const Ref<Download> download = add(file);
    give(*download, file);
    waitUntilGone(download);
    EXPECT_TRUE(hasBytes(other.path + "/2_a", file.bytes));
    EXPECT_THAT(namesIn(temp()), IsEmpty());
    EXPECT_EQ(shared(file)->path, (other.path + "/2_a").c_str());

    // Given up on the way, nothing has changed; where the copy doesn't fit, the file stays and it is said.
    const std::string source = temp("9.part");
    writeFile(source, file.bytes);
    i4_string path;
    int asked = 0;
    const auto giveUp = [&] { return ++asked > 1; };
    EXPECT_FALSE(partFileNamer.moveFile(source.c_str(), "c", other.path.c_str(), path, giveUp));
    EXPECT_EQ(path, source.c_str());
    log.take();
    {
        const FileSizeLimit full(2'000'000);
        EXPECT_TRUE(partFileNamer.moveFile(source.c_str(), "c", other.path.c_str(), path));
    }
    EXPECT_EQ(path, source.c_str());
    EXPECT_THAT(log.take(), HasSubstr("could not be moved to"));
    EXPECT_TRUE(hasBytes(source, file.bytes));
    EXPECT_THAT(namesIn(other.path), ElementsAre("2_a", "a"));
}

// --- the end of the program

TEST_F(PartialFiles, ThatWereCompletingWhenTheProgramEndedCompleteAtTheNextStart) {
    const RemoteFile file("a", 5000);
    writeFile(temp("1.part"), file.bytes);
    writeFile(temp("1.part.met"), metaOf(file, "1.part", {}));
    load();
    const Ref<Download> download = verifyLoaded(file);
    ASSERT_TRUE(download);
    EXPECT_EQ(download->partial().complete([] { return true; }), PartialFile::Completion::abandoned);
    EXPECT_THAT(namesIn(temp()), ElementsAre("1.part", "1.part.met"));
    dlPool.sourceStarted();  // no source may start: it needs none
    download->tick(1);
    EXPECT_EQ(download->getStatus(), DL_STATUS_COMPLETING);
    waitUntilGone(download);
    EXPECT_TRUE(hasBytes(incoming("a"), file.bytes));
    EXPECT_THAT(namesIn(temp()), IsEmpty());
}

}  // namespace
