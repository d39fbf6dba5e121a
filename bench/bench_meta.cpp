// The speed of writing and reading tags, and of loading and saving a known.met with 100,000 files. Loading
// and saving print the ratio to a plain read of the same bytes, and the memory of the records.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "i4min/file/file.h"
#include "meta/FileList.h"
#include "tests/support/systemDisk.h"

namespace {

constexpr u32 knownFiles = 100000;

double secondsOf(const auto& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

double allocatedMegabytes() { return static_cast<double>(::mallinfo2().uordblks) / 1e6; }

void tagRoundTrip(benchmark::State& state) {
    const u32 size = 1000;
    const std::unique_ptr<MetaTag> tags[] = {
        MetaTag::makeTag(TAG_NAME, "A file of some length in its name.avi"),
        MetaTag::makeTag(TAG_SIZE, size),
        MetaTag::makeTag("users", size),
    };
    i4_owned_ram_file file;
    for (auto _ : state) {
        file.seek(0);
        for (const auto& tag : tags) static_cast<void>(tag->toNetwork(file));
        file.seek(0);
        for (std::size_t i = 0; i < std::size(tags); ++i) benchmark::DoNotOptimize(MetaTag::readTag(file));
    }
    state.SetItemsProcessed(state.iterations() * static_cast<i64>(std::size(tags)));
}
BENCHMARK(tagRoundTrip);

void fill(FileList& list) {
    std::mt19937 random(5);
    for (u32 i = 0; i < knownFiles; ++i) {
        auto file = std::make_unique<FileMeta>();
        for (u8& byte : file->hash.bytes) byte = static_cast<u8>(random());
        file->date = i;
        file->setName(("Track " + std::to_string(i) + " of somebody's collection.mp3").c_str());
        file->setInt(TAG_SIZE, i);
        file->setText(TAG_TYPE, "Audio");
        file->setText(TAG_FORMAT, "mp3");
        list.add(file.release());
    }
}

// A known.met for the benchmarks. Owns: the file.
class KnownMet {
  public:
    KnownMet()
        : path_(std::filesystem::temp_directory_path() /
                ("bench_meta." + std::to_string(std::random_device()()))) {
        FileList list;
        fill(list);
        static_cast<void>(list.save(systemDisk(), path()));
        list.deleteAll();
    }
    ~KnownMet() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    KnownMet(const KnownMet&) = delete;
    KnownMet& operator=(const KnownMet&) = delete;
    const char* path() const { return path_.c_str(); }

    // The fastest of several reads, with the bytes in the page cache.
    double secondsOfOneRead() const {
        std::vector<char> bytes(std::filesystem::file_size(path_));
        double least = 1e9;
        for (int i = 0; i < 7; ++i) {
            least = std::min(least, secondsOf([&] {
                                 const int file = ::open(path(), O_RDONLY | O_CLOEXEC);
                                 benchmark::DoNotOptimize(::read(file, bytes.data(), bytes.size()));
                                 ::close(file);
                             }));
        }
        return least;
    }

  private:
    std::filesystem::path path_;
};

void report(benchmark::State& state, const KnownMet& known, double seconds) {
    state.counters["file_MB"] = static_cast<double>(std::filesystem::file_size(known.path())) / 1e6;
    state.counters["times_one_read"] =
        seconds / static_cast<double>(state.iterations()) / known.secondsOfOneRead();
}

void loadKnownMet(benchmark::State& state) {
    const KnownMet known;
    double seconds = 0;
    double megabytes = 0;
    for (auto _ : state) {
        FileList list;
        const double before = allocatedMegabytes();
        const double taken = secondsOf([&] { static_cast<void>(list.load(systemDisk(), known.path())); });
        megabytes = std::max(megabytes, allocatedMegabytes() - before);
        if (list.count() != knownFiles) state.SkipWithError("known.met didn't load");
        list.deleteAll();
        seconds += taken;
        state.SetIterationTime(taken);
    }
    report(state, known, seconds);
    state.counters["records_MB"] = megabytes;
}
BENCHMARK(loadKnownMet)->UseManualTime()->Unit(benchmark::kMillisecond);

void saveKnownMet(benchmark::State& state) {
    const KnownMet known;
    FileList list;
    fill(list);
    double seconds = 0;
    for (auto _ : state) {
        const double taken = secondsOf([&] { static_cast<void>(list.save(systemDisk(), known.path())); });
        seconds += taken;
        state.SetIterationTime(taken);
    }
    list.deleteAll();
    report(state, known, seconds);
}
BENCHMARK(saveKnownMet)->UseManualTime()->Unit(benchmark::kMillisecond);

void findKnownFile(benchmark::State& state) {
    FileList list;
    fill(list);
    const std::vector<FileMeta*> files = list.snapshot();
    std::size_t at = 0;
    for (auto _ : state) {
        const FileMeta* file = files[at];
        at = (at + 7919) % files.size();
        benchmark::DoNotOptimize(list.find(file->hash));
        benchmark::DoNotOptimize(list.find(file->getSize(), file->date, file->getName()));
    }
    list.deleteAll();
}
BENCHMARK(findKnownFile);

}  // namespace
