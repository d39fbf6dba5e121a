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
#include <filesystem>
#include <functional>
#include <map>
#include <memory>

#include "download/PartFileNamer.h"
#include "tests/support/Downloads.h"
#include "tests/support/damage.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using namespace std::string_literals;
namespace fs = std::filesystem;

constexpr u32 piece = 184'320;
constexpr u32 killPiece = PARTSIZE / 8;

std::string le16(u32 value) { return {static_cast<char>(value), static_cast<char>(value >> 8)}; }
std::string le32(u32 value) { return le16(value) + le16(value >> 16); }
std::string bytesOf(const MD4Hash& hash) { return {reinterpret_cast<const char*>(hash.bytes.data()), 16}; }
std::string tag(u8 type, const std::string& name, const std::string& value) {
    return std::string(1, static_cast<char>(type)) + le16(static_cast<u32>(name.size())) + name + value;
}
std::string textTag(const std::string& name, const std::string& text) {
    return tag(META_TAG_STRING, name, le16(static_cast<u32>(text.size())) + text);
}
std::string intTag(const std::string& name, u32 value) { return tag(META_TAG_INT, name, le32(value)); }

void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

class PartialFiles : public Downloads {
  protected:
    // The meta file of a one-part download that misses the given ranges.
    static std::string metaOf(const RemoteFile& file, const std::string& dataFile,
                              const std::vector<Gap>& missing) {
        std::string tags = textTag("\1", file.record.getName()) + intTag("\2", file.size()) +
                           intTag("\b", 7) + textTag("\x12", dataFile) + intTag("\x13", 2) +
                           intTag("\x14", 0);
        u32 count = 6;
        for (std::size_t k = 0; k < missing.size(); ++k, count += 2) {
            tags += intTag("\t" + std::to_string(k), static_cast<u32>(missing[k].start));
            tags += intTag("\n" + std::to_string(k), static_cast<u32>(missing[k].end));
        }
        return "\xe0" + le32(0) + bytesOf(file.record.hash) + le16(0) + le32(count) + tags;
    }
    // All that lies in the temp directory, as a start finds it.
    void start() {
        log.take();
        clientApp.partials().loadFromDir(temp("").c_str());
        clientApp.partials().startDownloads();
    }
    Ref<Download> startAndVerify(const RemoteFile& file) {
        start();
        Ref<Download> download = dlPool.findByRecord(file.record.hash);
        if (download) download->verify({});
        handleMessages();
        return download;
    }
    std::vector<std::string> namesIn(const std::string& path) const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(path)) names.push_back(entry.path().filename());
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(PartialFiles, EndWholeInTheIncomingDirectoryWhateverTheOrder) {
    const u32 sizes[] = {0, 1, 3 * piece + 17, PARTSIZE - 1, PARTSIZE, PARTSIZE + 1, 2 * PARTSIZE + 12'345};
    u32 seed = 0;
    for (const u32 size : sizes) {
        const std::string name = "file" + std::to_string(size) + ".bin";
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
        EXPECT_TRUE(contentOf(incoming(name)) == file.bytes);
        const std::string all(size / PARTSIZE + 1, size >= PARTSIZE ? '1' : '0');
        EXPECT_EQ(verified(*download), all) << "only the parts of a longer file are checked alone";
        const FileMeta* shared = clientApp.shared.find(file.record.hash);
        ASSERT_TRUE(shared);
        EXPECT_EQ(shared->path.c_str(), incoming(name));
        EXPECT_NE(shared->date, 0u);
    }
    EXPECT_THAT(namesIn(temp("")), IsEmpty());
}

TEST_F(PartialFiles, KeepWhatIsVerifiedWhateverElseIsSent) {
    const RemoteFile file("film.avi", 2 * PARTSIZE + 500);
    const Ref<Download> download = add(file);
    giveHashSet(*download, file.parts);
    const PartialFile& partial = download->partial();

    giveWrong(*download, 0, PARTSIZE);
    EXPECT_THAT(log.take(), HasSubstr("film.avi at 0\n"));
    EXPECT_EQ(gaps(partial), "0-19456500");
    EXPECT_EQ(partial.transferred(), 0u);
    EXPECT_FALSE(clientApp.shared.find(file.record.hash));

    give(*download, file, 0, PARTSIZE);
    EXPECT_EQ(verified(*download), "100");
    const FileMeta* shared = clientApp.shared.find(file.record.hash);
    ASSERT_TRUE(shared) << "a first verified part is published";
    EXPECT_TRUE(shared->path.isNull());

    // Wrong bytes over the verified part and into the next one: only the next one takes them.
    giveWrong(*download, 1000, PARTSIZE + 1000);
    EXPECT_EQ(partial.transferred(), 2 * PARTSIZE);
    give(*download, file, PARTSIZE + 500, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "100");
    give(*download, file, PARTSIZE - 500, 2 * PARTSIZE);
    give(*download, file, PARTSIZE - 500, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "110");

    // Ranges that make no sense.
    log.take();
    log.verbose = 1;
    const u32 size = file.size();
    const std::pair<u32, u32> crazy[] = {{size - 10, size - 10}, {size, size},    {5, 4},
                                         {size - 10, size + 1},  {0, 0xFFFFFFFF}, {0xFFFFFFFF, 0xFFFFFFFF},
                                         {size + 1, size + 2}};
    for (const auto& [from, to] : crazy) {
        DataPacket packet(from, to, std::string(20, 'x'));
        download->gotData(packet, *nobody);
        EXPECT_EQ(log.take(), "Crazy packet\n") << from << "-" << to;
    }
    DataPacket promise(size - 500, size, std::string(499, 'x'));  // fewer bytes than it says
    download->gotData(promise, *nobody);
    EXPECT_EQ(log.take(), "Crazy packet\n");
    DataPacket cut(0, 0, "");
    cut.setUsed(7);
    EXPECT_THROW(download->gotData(cut, *nobody), i4_err);
    EXPECT_EQ(gaps(partial), "19456000-19456500");
    EXPECT_EQ(download->getStatus(), DL_STATUS_LOOKING);

    give(*download, file, size - 500, size);
    waitUntilGone(download);
    EXPECT_TRUE(contentOf(incoming("film.avi")) == file.bytes);
}

TEST_F(PartialFiles, VerifyPartsThatWereCompleteBeforeTheirHashesCame) {
    const RemoteFile file("a", 3 * PARTSIZE);
    const Ref<Download> download = add(file);
    ASSERT_EQ(download->partial().getPartCount(), 4u) << "the last one is empty";
    give(*download, file, 0, PARTSIZE);
    giveWrong(*download, PARTSIZE, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "0000");

    // None of these belongs to the file.
    giveHashSet(*download, {});
    giveHashSet(*download, {file.parts[0], file.parts[1], file.parts[2]});
    giveHashSet(*download, {file.parts[0], file.parts[1], file.parts[3], file.parts[2]});
    EXPECT_FALSE(download->partial().partHashesKnown());

    giveHashSet(*download, file.parts);
    EXPECT_TRUE(download->partial().partHashesKnown());
    give(*download, file, 2 * PARTSIZE, 2 * PARTSIZE + 1);
    EXPECT_EQ(verified(*download), "1000");
    EXPECT_EQ(gaps(download->partial()), "19456001-29184000 9728000-19456000");
    give(*download, file, 2 * PARTSIZE + 1, 3 * PARTSIZE);
    EXPECT_EQ(verified(*download), "1011");
    // The part that failed can be asked for.
    BoolArray all(4);
    all.setAll(true);
    u32 from = 0;
    u32 to = 0;
    ASSERT_TRUE(download->progress().pickChunk(&all, from, to));
    EXPECT_EQ(from, PARTSIZE);
    EXPECT_EQ(to, PARTSIZE + piece);
}

TEST_F(PartialFiles, EndCorruptedWhenTheWholeFails) {
    for (const int keep : {1, 0}) {
        preferences.saveCor = keep;
        const RemoteFile file(keep ? "kept.met" : "gone", 1000);
        const Ref<Download> download = add(file);
        save();
        EXPECT_TRUE(exists(temp(std::string(download->partial().tempFileName().c_str()) + ".met")));
        giveWrong(*download, 0, 1000);
        waitUntilGone(download);
        EXPECT_EQ(download->getStatus(), DL_STATUS_CORRUPTED);
        EXPECT_EQ(download->partial().status(), PartialFile::gone);
        EXPECT_FALSE(clientApp.shared.find(file.record.hash));
    }
    EXPECT_THAT(namesIn(incoming("")), IsEmpty());
    // Under its own name, which the next start doesn't take for a meta file.
    EXPECT_THAT(namesIn(temp("")), testing::ElementsAre("kept.met_"));
}

TEST_F(PartialFiles, AreReadByUploadsUntilTheyMoveOrGo) {
    const RemoteFile file("a", 2000);
    const Ref<Download> download = add(file);
    PartialFile& partial = download->partial();
    std::string got(500, ' ');
    const auto read = [&](u32 start, u32 end) {
        return partial.readData(reinterpret_cast<u8*>(got.data()), start, end);
    };
    EXPECT_EQ(read(0, 500), PartialFile::Read::unavailable);
    give(*download, file, 0, 1000);
    EXPECT_EQ(read(400, 900), PartialFile::Read::ok);
    EXPECT_EQ(got, file.bytes.substr(400, 500));
    EXPECT_EQ(read(600, 1001), PartialFile::Read::unavailable);
    EXPECT_EQ(read(900, 400), PartialFile::Read::unavailable);
    EXPECT_EQ(read(1900, 2400), PartialFile::Read::unavailable);
    EXPECT_TRUE(partial.finalPath().isNull());
    give(*download, file, 1000, 2000);
    waitUntilGone(download);
    EXPECT_EQ(read(0, 500), PartialFile::Read::moved);
    EXPECT_EQ(partial.finalPath().c_str(), incoming("a"));

    const RemoteFile other("b", 2000, 2);
    const Ref<Download> cancelled = add(other);
    give(*cancelled, other, 0, 1000);
    EXPECT_EQ(cancelled->partial().readData(reinterpret_cast<u8*>(got.data()), 0, 500),
              PartialFile::Read::ok);
    cancelled->cancel();
    EXPECT_EQ(cancelled->partial().readData(reinterpret_cast<u8*>(got.data()), 0, 500),
              PartialFile::Read::gone);
    // Emptied and made anew, the shared list gets it back no more.
    dlPool.republish();
    EXPECT_FALSE(clientApp.shared.find(other.record.hash));
    EXPECT_THAT(namesIn(temp("")), IsEmpty());
}

// --- meta files

TEST_F(PartialFiles, SaveTheirMetaFileToTheByte) {
    RemoteFile file("film.avi", PARTSIZE + 1000);
    file.record.setText(TAG_TYPE, "Video");
    // What only a meta file tells is not taken from a stranger's record.
    file.record.setInt(
        "\t"
        "0",
        0);
    file.record.setInt(
        "\n"
        "0",
        1);
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
    const std::string expected =
        "\xe0" + le32(0) + bytesOf(file.record.hash) + le16(2) + bytesOf(file.parts[0]) +
        bytesOf(file.parts[1]) + le32(13) + textTag("\1", "film.avi") + intTag("\2", PARTSIZE + 1000) +
        textTag("\3", "Video") + intTag("\b", 910) + textTag("\x12", dataFile) + intTag("\x13", 2) +
        intTag("\x14", 1) + intTag("\t0", 0) + intTag("\n0", 100) + intTag("\t1", 1000) +
        intTag("\n1", PARTSIZE) + intTag("\t2", PARTSIZE + 10) + intTag("\n2", PARTSIZE + 1000);
    EXPECT_EQ(contentOf(temp(dataFile + ".met")), expected);

    dlPool.stopAll();
    clientApp.partials().saveToDir(temp("").c_str());
    EXPECT_EQ(contentOf(temp(dataFile + ".met")), expected) << "the end of the program writes the same";
    const Ref<Download> again = startAndVerify(file);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->getStatus(), DL_STATUS_PAUSED);
    EXPECT_EQ(again->priority, 2);
    EXPECT_EQ(again->partial().transferred(), 910u);
    EXPECT_EQ(gaps(again->partial()), gaps(download->partial()));
    save();
    EXPECT_EQ(contentOf(temp(dataFile + ".met")), expected) << "what was loaded is saved as it was";
}

TEST_F(PartialFiles, AreFoundAgainAndTheirPartsVerified) {
    const RemoteFile file("a", 2 * PARTSIZE + 10);
    Ref<Download> download = add(file);
    giveHashSet(*download, file.parts);
    give(*download, file, 0, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "110");
    dlPool.stopAll();
    clientApp.partials().saveToDir(temp("").c_str());
    clientApp.shared.clear();
    // Meanwhile somebody changes a byte of the second part.
    const std::string data = temp(download->partial().tempFileName().c_str());
    std::fstream(data, std::ios::in | std::ios::out | std::ios::binary).seekp(PARTSIZE + 5).put('?').put('!');

    download = startAndVerify(file);
    ASSERT_TRUE(download);
    EXPECT_EQ(verified(*download), "100");
    EXPECT_EQ(gaps(download->partial()), "9728000-19456010");
    EXPECT_FALSE(download->partial().partHashesKnown()) << "they are asked for again all the same";
    EXPECT_TRUE(clientApp.shared.find(file.record.hash));
    EXPECT_EQ(download->getStatus(), DL_STATUS_QUEUED);
    dlPool.tick(500);
    download->tick(1);
    give(*download, file, PARTSIZE, file.size());
    waitUntilGone(download);
    EXPECT_TRUE(contentOf(incoming("a")) == file.bytes);
    EXPECT_THAT(namesIn(temp("")), IsEmpty());
}

TEST_F(PartialFiles, ThatCannotBeLoadedAreNamedAndLeftAlone) {
    const RemoteFile good("good", 1000, 1);
    const RemoteFile missing("missing", 1000, 2);
    const RemoteFile isFolder("folder", 1000, 3);
    const RemoteFile hostile("hostile", 1000, 4);
    const RemoteFile closed("closed", 1000, 5);
    writeFile(temp("1.part"), std::string(1000, 'a'));
    writeFile(temp("closed.part"), "x");
    fs::create_directory(temp("3.part"));
    fs::permissions(temp("closed.part"), fs::perms::owner_read);
    std::map<std::string, std::string> metas{
        {"1.part.met", metaOf(good, "1.part", {{0, 500}})},
        {"2.part.met", metaOf(missing, "2.part", {{0, 500}})},
        {"3.part.met", metaOf(isFolder, "3.part", {{0, 500}})},
        {"4.part.met", metaOf(hostile, "../outside", {{0, 500}})},
        {"5.part.met", metaOf(RemoteFile("tricky", 1000, 7), "1.part.met", {{0, 500}})},
        {"6.part.met", metaOf(RemoteFile("twin", 1000, 6), "1.part", {{0, 1000}})},
        {"7.part.met", metaOf(good, "1.part", {{0, 500}}).substr(0, 60)},
        {"8.part.met", ""},
        {"9.part.met", "\xe0" + le32(0) + bytesOf(good.record.hash) + le16(0) + le32(0)},
        {"closed.part.met", metaOf(closed, "closed.part", {{0, 1000}})},
        {"foreign.met", "\x0e anything"},
        {".met", metaOf(missing, "1.part", {})},
        {"CAPITALS.MET", metaOf(missing, "1.part", {})},
    };
    for (const auto& [name, bytes] : metas) writeFile(temp(name), bytes);
    start();
    const std::string said = log.take();
    for (const char* text :
         {"2.part not found.", "3.part Couldn't be opened.", "outside not found.", "1.part.met not found.",
          "already downloading twin.", "Error loading: ", "7.part.met\n", "8.part.met\n", "9.part.met\n"}) {
        EXPECT_THAT(said, HasSubstr(text));
    }
    for (const char* text : {"foreign", ".MET", "/.met"}) EXPECT_THAT(said, testing::Not(HasSubstr(text)));
    const Ref<Download> loaded = dlPool.findByRecord(good.record.hash);
    ASSERT_TRUE(loaded);
    EXPECT_EQ(loaded->getStatus(), DL_STATUS_HASHING);
    EXPECT_EQ(gaps(loaded->partial()), "0-500");
    const Ref<Download> failed = dlPool.findByRecord(missing.record.hash);
    ASSERT_TRUE(failed);
    EXPECT_EQ(failed->getStatus(), DL_STATUS_ERROR_LOADING);
    if (::access(temp("closed.part").c_str(), W_OK) != 0) {  // so not for the superuser
        EXPECT_THAT(said, HasSubstr("closed.part Couldn't be opened."));
    }
    // Neither a cancel nor a save touches what didn't load.
    failed->cancel();
    handleMessages();
    EXPECT_TRUE(dlPool.findByRecord(missing.record.hash));
    save();
    for (const auto& [name, bytes] : metas) {
        if (name == "1.part.met" || name == "closed.part.met") continue;
        EXPECT_EQ(contentOf(temp(name)), bytes) << name;
    }
}

TEST_F(PartialFiles, WhoseDataFileIsShortFetchTheRestAgain) {
    const struct {
        const char* name;
        std::size_t length;
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
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        writeFile(temp("1.part"), file.bytes.substr(0, row.length));
        writeFile(temp("1.part.met"), metaOf(file, "1.part", row.recorded));
        start();
        const Ref<Download> download = dlPool.findByRecord(file.record.hash);
        ASSERT_TRUE(download);
        EXPECT_EQ(gaps(download->partial()), row.expected);
        EXPECT_EQ(download->partial().fileEnd(), row.length);
        dlPool.stopAll();
        clientApp.partials().deleteAll();
    }
}

// Each damaged meta file is refused or makes a download that can be saved and read again, and stays as it is.
TEST_F(PartialFiles, LiveThroughAnyDamageToAMetaFile) {
    const RemoteFile file("a.b", 1000);
    const std::string good = metaOf(file, "1.part", {{0, 100}, {200, 300}});
    writeFile(temp("1.part"), file.bytes);
    Ref<Download> owner(new Download);
    int loaded = 0;
    const auto bytes = std::span(reinterpret_cast<const u8*>(good.data()), good.size());
    sweepDamage(bytes, [&](std::span<const u8> damaged) {
        const std::string written(damaged.begin(), damaged.end());
        writeFile(temp("x.met"), written);
        PartialList list;
        list.loadFromDir(temp("").c_str());
        for (const FileMeta* record : list.snapshot()) {
            const Ref<PartialFile> partial(new PartialFile(owner.get()));
            i32 priority = 9;
            if (partial->load(*record, priority) == PartialFile::Load::failed) continue;
            ++loaded;
            EXPECT_TRUE(priority >= 0 && priority <= 2);
            PartialList saved;
            partial->saveToList(saved, priority, false);
            i4_owned_ram_file stream;
            ASSERT_EQ(saved.count(), 1u);
            ASSERT_TRUE(saved.get(0)->toDisk(stream));
            stream.seek(0);
            FileMeta read;
            ASSERT_TRUE(read.fromDisk(stream));
            const Ref<PartialFile> again(new PartialFile(owner.get()));
            ASSERT_NE(again->load(read, priority), PartialFile::Load::failed);
            ASSERT_EQ(gaps(*again), gaps(*partial));
        }
        ASSERT_EQ(contentOf(temp("x.met")), written);
    });
    EXPECT_GT(loaded, 100);
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
    const RemoteFile small("small", 1000, 2);
    const Ref<Download> download = add(file);
    const Ref<Download> other = add(small);
    giveHashSet(*download, file.parts);
    give(*download, file, 0, PARTSIZE);
    {
        const FileSizeLimit full(PARTSIZE + 1000);
        log.take();
        give(*download, file, PARTSIZE, PARTSIZE + 5000);
        EXPECT_THAT(log.take(), testing::StartsWith("Not all written(1000,5000): "));
        for (const Gap& range : file.pieces(piece)) {
            if (range.start >= PARTSIZE + 5000) give(*download, file, range.start, range.end);
        }
        EXPECT_THAT(log.take(), testing::Not(HasSubstr("Not all written"))) << "said once";
        save();
    }
    give(*download, file, PARTSIZE + 5000, 2 * PARTSIZE);
    EXPECT_EQ(verified(*download), "101") << "the last one is empty";
    EXPECT_EQ(gaps(download->partial()), "9728000-19456000");
    give(*other, small);
    waitUntilGone(other);
    EXPECT_EQ(other->getStatus(), DL_STATUS_COMPLETE);
    give(*download, file, PARTSIZE, 2 * PARTSIZE);
    waitUntilGone(download);
    EXPECT_TRUE(contentOf(incoming("big")) == file.bytes);
}

// What the parent sees of a child that it kills.
struct Progress {
    std::atomic<u32> pieces{0};
    std::atomic<u32> savedParts{0};  // a bit for each part that was verified at the last save
    std::atomic<u32> saves{0};
};

// The pieces of one part after the other, both in random order.
std::vector<Gap> partByPart(const RemoteFile& file, u32 seed) {
    std::mt19937 random(seed);
    std::map<u32, std::vector<Gap>> byPart;
    for (const Gap& range : file.pieces(killPiece))
        byPart[static_cast<u32>(range.start / PARTSIZE)].push_back(range);
    std::vector<std::vector<Gap>> parts;
    for (auto& [part, pieces] : byPart) {
        std::shuffle(pieces.begin(), pieces.end(), random);
        parts.push_back(pieces);
    }
    std::shuffle(parts.begin(), parts.end(), random);
    std::vector<Gap> order;
    for (const auto& pieces : parts) order.insert(order.end(), pieces.begin(), pieces.end());
    return order;
}

// Fetches the file and saves after every second piece.
[[noreturn]] void fetchUntilKilled(const RemoteFile& file, u32 seed, const std::string& temp,
                                   Progress& progress) {
    Ref<Download> owner(new Download);
    FileMeta record;
    record.copyFrom(&file.record);
    record.partHashes = file.parts;
    PartialFile partial(owner.get());
    if (!partial.create(record)) ::_exit(1);
    const std::vector<Gap> order = partByPart(file, seed);
    for (const Gap& range : order) {
        const auto start = static_cast<u32>(range.start);
        const auto end = static_cast<u32>(range.end);
        DataPacket packet(start, end, file.bytes.substr(start, end - start));
        u32 from = 0;
        u32 to = 0;
        partial.writeData(packet, from, to);
        if (++progress.pieces % 2 != 0) continue;
        u32 verified = 0;
        for (u32 part = 0; part < partial.getPartCount(); ++part)
            verified |= partial.isVerified(part) ? 1U << part : 0;
        PartialList list;
        partial.saveToList(list, 1, false);
        list.saveToDir(temp.c_str());
        progress.savedParts = verified;
        ++progress.saves;
    }
    for (;;) ::pause();
}

TEST_F(PartialFiles, ComeBackWithEveryVerifiedPartAfterAKillAtAnyMoment) {
    const RemoteFile file("a", 2 * PARTSIZE + 3 * killPiece);
    const auto pieceCount = static_cast<u32>(file.pieces(killPiece).size());
    std::mt19937 random(7);
    int withParts = 0;
    for (u32 round = 0; round < 50; ++round) {
        fs::remove_all(temp(""));
        fs::create_directory(temp(""));
        void* page =
            ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        auto* progress = new (page) Progress;
        const u32 until = static_cast<u32>(random()) % pieceCount + 1;
        const pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) fetchUntilKilled(file, round, temp(""), *progress);
        int status = 0;
        while (progress->pieces < until && ::waitpid(child, &status, WNOHANG) == 0) ::sched_yield();
        for (u32 spin = static_cast<u32>(random()) % 200'000; spin > 0; --spin)
            std::atomic_signal_fence(std::memory_order_seq_cst);
        ::kill(child, SIGKILL);
        ::waitpid(child, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status)) << "round " << round;
        const u32 savedParts = progress->savedParts;
        if (progress->saves > 0) {
            PartialList list;
            log.take();
            ASSERT_TRUE(list.loadFromDir(temp("").c_str()));
            ASSERT_EQ(list.count(), 1u) << log.take();
            const Ref<Download> owner(new Download);
            PartialFile partial(owner.get());
            i32 priority = 0;
            ASSERT_EQ(partial.load(*list.get(0), priority), PartialFile::Load::running);
            ASSERT_EQ(partial.checkParts(), PartialFile::Check::done);
            for (u32 part = 0; part < partial.getPartCount(); ++part) {
                EXPECT_TRUE(partial.isVerified(part) || (savedParts >> part & 1) == 0) << "round " << round;
            }
            withParts += savedParts != 0 ? 1 : 0;
            clientApp.shared.clear();
            clientApp.known.deleteAll();
        }
        ::munmap(page, sizeof(Progress));
    }
    EXPECT_GT(withParts, 10) << "most rounds had nothing to lose";
}

// --- names and moves

TEST(SafeFileNames, AreOnePlainComponent) {
    const std::string long300(300, 'x');
    const std::string umlauts = [] {
        std::string text;
        for (int i = 0; i < 200; ++i) text += "ä";
        return text;
    }();
    const std::pair<const char*, std::string> rows[] = {
        {"film.avi", "film.avi"},
        {"a b (c) [d] é.txt", "a b (c) [d] é.txt"},
        {"/etc/passwd", "passwd"},
        {"..\\..\\boot.ini", "boot.ini"},
        {"C:\\dir/x", "x"},
        {"dir/", "_"},
        {"..", "_"},
        {".", "_"},
        {"", "_"},
        {nullptr, "_"},
        {"a/..", "_"},
        {"...", "..."},
        {".hidden", ".hidden"},
        {"a\nb\x1b[2J\x7f", "a_b_[2J_"},
        {long300.c_str(), std::string(255, 'x')},
    };
    for (const auto& [name, expected] : rows) EXPECT_EQ(safeFileName(name).c_str(), expected);
    EXPECT_EQ(safeFileName((long300 + ".avi").c_str()).c_str(), std::string(251, 'x') + ".avi");
    EXPECT_EQ(safeFileName(("x." + long300).c_str()).length(), 255u);
    const i4_string cut = safeFileName((umlauts + ".avi").c_str());
    EXPECT_EQ(cut.c_str(), umlauts.substr(0, 250) + ".avi") << "never inside a character";
}

TEST_F(PartialFiles, NeverTakeTheNameOfAFileThatExists) {
    writeFile(incoming("movie.avi"), "mine");
    fs::create_symlink("/nowhere", incoming("2_movie.avi"));
    for (int n = 3; n <= 99; ++n) writeFile(incoming(std::to_string(n) + "_movie.avi"), "mine");
    const RemoteFile file("../../movie.avi", 1000);
    const Ref<Download> download = add(file);
    give(*download, file);
    waitUntilGone(download);
    EXPECT_TRUE(contentOf(incoming("100_movie.avi")) == file.bytes);
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
    fs::remove(incoming(""));
    give(*download, file);
    waitUntilGone(download);
    const std::string data = temp(download->partial().tempFileName().c_str());
    EXPECT_THAT(log.take(), HasSubstr(data + " could not be moved to " + incoming("a") + "\n"));
    EXPECT_EQ(download->getStatus(), DL_STATUS_COMPLETE);
    EXPECT_TRUE(contentOf(data) == file.bytes);
    EXPECT_FALSE(exists(data + ".met"));
    EXPECT_EQ(clientApp.shared.find(file.record.hash)->path.c_str(), data);
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
    EXPECT_TRUE(contentOf(other.path + "/2_a") == file.bytes);
    EXPECT_EQ(contentOf(other.path + "/a"), "mine");
    EXPECT_THAT(namesIn(temp("")), IsEmpty());
    EXPECT_EQ(clientApp.shared.find(file.record.hash)->path.c_str(), other.path + "/2_a");

    // Given up on the way, nothing has changed; where the copy doesn't fit, the file stays and it is said.
    writeFile(temp("9.part"), file.bytes);
    i4_string path;
    int asked = 0;
    EXPECT_FALSE(partFileNamer.moveFile(temp("9.part").c_str(), "c", other.path.c_str(), path,
                                        [&] { return ++asked > 1; }));
    EXPECT_EQ(path.c_str(), temp("9.part"));
    log.take();
    {
        const FileSizeLimit full(2'000'000);
        EXPECT_TRUE(partFileNamer.moveFile(temp("9.part").c_str(), "c", other.path.c_str(), path));
    }
    EXPECT_EQ(path.c_str(), temp("9.part"));
    EXPECT_THAT(log.take(), HasSubstr("could not be moved to"));
    EXPECT_TRUE(contentOf(temp("9.part")) == file.bytes);
    EXPECT_THAT(namesIn(other.path), testing::ElementsAre("2_a", "a"));
}

// --- the end of the program

TEST_F(PartialFiles, ThatWereCompletingWhenTheProgramEndedCompleteAtTheNextStart) {
    const RemoteFile file("a", 5000);
    const Ref<Download> download = add(file);
    PartialFile& partial = download->partial();
    giveHashSet(*download, file.parts);
    DataPacket packet(0, 5000, file.bytes);
    u32 start = 0;
    u32 end = 0;
    EXPECT_FALSE(partial.writeData(packet, start, end));
    EXPECT_EQ(partial.complete([] { return true; }), PartialFile::Completion::abandoned);
    dlPool.stopAll();
    clientApp.partials().saveToDir(temp("").c_str());

    const Ref<Download> again = startAndVerify(file);
    ASSERT_TRUE(again);
    dlPool.sourceStarted();  // no source may start: it needs none
    again->tick(1);
    EXPECT_EQ(again->getStatus(), DL_STATUS_COMPLETING);
    waitUntilGone(again);
    EXPECT_TRUE(contentOf(incoming("a")) == file.bytes);
    EXPECT_THAT(namesIn(temp("")), IsEmpty());
}

}  // namespace
