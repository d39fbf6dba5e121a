// How fast bytes in memory and files on disk are hashed.
//
//   bench_hash                  runs the benchmarks
//   bench_hash --file PATH      hashes a file and prints what openssl would; bench/hash_ratio.py times this
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <system_error>
#include <vector>

#include "i4min/file/file.h"
#include "meta/MD4.h"
#include "meta/MD4Hash.h"
#include "tests/support/systemDisk.h"

namespace {

std::vector<u8> randomBytes(std::size_t count) {
    std::vector<u8> bytes(count);
    std::mt19937 random(4);
    for (u8& byte : bytes) byte = static_cast<u8>(random());
    return bytes;
}

void digest(benchmark::State& state) {
    const std::vector<u8> bytes = randomBytes(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        MD4 md4;
        md4.update(bytes);
        benchmark::DoNotOptimize(md4.finish());
    }
    state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(digest)->Arg(64)->Arg(1024)->Arg(1 << 18);

// A file of random bytes. Owns: the file.
class Sample {
  public:
    explicit Sample(std::size_t mebibytes)
        : path_(std::filesystem::temp_directory_path() /
                ("bench_hash." + std::to_string(std::random_device()()))) {
        std::ofstream file(path_, std::ios::binary);
        const std::vector<u8> bytes = randomBytes(1 << 20);
        for (; mebibytes > 0; --mebibytes)
            file.write(reinterpret_cast<const char*>(bytes.data()),
                       static_cast<std::streamsize>(bytes.size()));
    }
    ~Sample() {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
    Sample(const Sample&) = delete;
    Sample& operator=(const Sample&) = delete;
    const char* path() const { return path_.c_str(); }

  private:
    std::filesystem::path path_;
};

void computeFile(benchmark::State& state) {
    const Sample sample(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        MD4Hash hash;
        std::vector<MD4Hash> parts;
        if (MD4Hash::computeFile(hash, systemDisk(), sample.path(), parts) != HashOutcome::whole) {
            state.SkipWithError("the sample can't be hashed");
        }
        benchmark::DoNotOptimize(hash);
    }
    state.SetBytesProcessed(state.iterations() * state.range(0) * (1 << 20));
}
BENCHMARK(computeFile)->Arg(1)->Arg(256)->Unit(benchmark::kMillisecond);

int hashOne(const char* path) {
    MD4Hash hash;
    std::vector<MD4Hash> parts;
    if (MD4Hash::computeFile(hash, systemDisk(), path, parts) != HashOutcome::whole) {
        std::fprintf(stderr, "%s can't be hashed\n", path);
        return 1;
    }
    std::printf("%s %zu\n", hash.toText().c_str(), parts.size());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "--file") == 0) return hashOne(argv[2]);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}
