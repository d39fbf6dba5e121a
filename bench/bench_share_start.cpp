// The cost of the shared directories at a start where every file is known: known.met is loaded, each file is
// recognised by its name, size and time, and known.met is saved. The time per file must not grow with the
// number of files.
#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>

#include "core/Preferences.h"
#include "core/StringTable.h"
#include "core/UIInterface.h"
#include "i4min/file/filesystem.h"
#include "tests/support/HashedFiles.h"
#include "tests/support/OwnEngine.h"
#include "tests/support/systemDisk.h"

namespace {

class Silence : public CoreUIInterface {
  public:
    void say(Text, const char*, va_list) override {}
};

class Home {
  public:
    Home() : path_(std::filesystem::temp_directory_path() / "bench_share_start.XXXXXX") {
        if (!::mkdtemp(path_.data())) throw std::runtime_error("no temporary directory can be made");
    }
    Home(const Home&) = delete;
    Home& operator=(const Home&) = delete;
    ~Home() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A directory of empty files, and a known.met that lists them.
void makeKnownFiles(const std::string& directory, i64 count, FileList& known) {
    std::filesystem::create_directory(directory);
    for (i64 i = 0; i < count; ++i) {
        const std::string name = "Some film or other, part " + std::to_string(i) + ".avi";
        const std::string path = directory + "/" + name;
        std::ofstream(path, std::ios::binary).close();
        i4_file_status status;
        if (!i4_get_status(path.c_str(), status)) return;
        auto file = std::make_unique<FileMeta>();
        file->setName(name.c_str());
        file->setInt(TAG_SIZE, 0);
        file->setText(TAG_TYPE, "Video");
        file->setText(TAG_FORMAT, "avi");
        file->date = status.last_modified;
        for (std::size_t b = 0; b < 8; ++b) file->hash.bytes[b] = static_cast<u8>((i + 1) >> (8 * b));
        file->partHashes.resize(72);  // like a film of 700 MB
        known.add(file.release());
    }
}

void startWithKnownFiles(benchmark::State& state) {
    const Home home;
    const std::string directory = home.file("shared");
    static Silence silence;
    OwnEngine own(&silence);
    own.preferences.load();
    {
        FileList known;
        makeKnownFiles(directory, state.range(0), known);
        static_cast<void>(known.save(systemDisk(), own.preferences.knownPath.c_str()));
        known.deleteAll();
    }
    for (auto _ : state) {
        HashedFiles files(own.engine.core);
        static_cast<void>(files.knownFiles.load(systemDisk(), own.preferences.knownPath.c_str()));
        HashThread thread(own.engine.core, silence, files);
        thread.hashDirs({directory.c_str()});
        files.published.wait(0);
        thread.stop();
        if (files.sharedFiles.count() != state.range(0)) state.SkipWithError("not all files were recognised");
    }
    state.counters["per file"] =
        benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(startWithKnownFiles)
    ->Arg(2500)
    ->Arg(10'000)
    ->Arg(40'000)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
