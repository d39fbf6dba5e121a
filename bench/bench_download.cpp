// What a download costs: writing its bytes to the disk, and its memory.
//
//   writeInRandomOrder   a whole file through PartialFile::writeData, every part verified; `ratio` is its
// speed over
//                        that of plain pwrite plus one digest of the same bytes, measured in the same round
//   memoryOf4Gigabytes   `bytes` that a download of the largest size takes with 500 sources
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
#include <vector>

#include "core/UIInterface.h"
#include "download/Download.h"
#include "download/FileSource.h"
#include "engine/ClientApp.h"
#include "meta/MD4.h"
#include "tests/support/OwnEngine.h"

namespace {

constexpr u32 piece = 184'320;  // bytes per packet
constexpr u32 fileSize = 10 * PARTSIZE;

f64 seconds() {
    return std::chrono::duration<f64>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

class Folder {
  public:
    Folder()
        : path_(std::filesystem::temp_directory_path() / ("bench_download." + std::to_string(::getpid()))) {
        std::filesystem::create_directory(path_);
        own_.preferences.setTemp(path_.c_str());
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder() { std::filesystem::remove_all(path_); }
    std::string file(const char* name) const { return path_ / name; }
    Ref<Download> makeDownload() {
        return Ref<Download>(new Download(own_.engine.downloadNeeds, own_.dlPool));
    }

  private:
    OwnEngine own_;
    const std::filesystem::path path_;
};

// A file in packets of random order, and its record with the part hashes. Owns: the packets.
class Sample {
  public:
    Sample() {
        std::mt19937 random(4);
        std::vector<u8> bytes(fileSize);
        for (u8& byte : bytes) byte = static_cast<u8>(random());
        i4_ram_file_class all(bytes.data(), fileSize, 0);
        for (u64 start = 0; start <= fileSize; start += PARTSIZE) {
            record.partHashes.emplace_back();
            const u64 end = std::min<u64>(fileSize, start + PARTSIZE);
            static_cast<void>(MD4Hash::compute(record.partHashes.back(), all, static_cast<u32>(start),
                                               static_cast<u32>(end)));
        }
        record.hash = MD4Hash::ofParts(record.partHashes);
        record.setName("sample");
        record.setInt(TAG_SIZE, fileSize);
        for (u32 start = 0; start < fileSize; start += piece) {
            const u32 end = std::min(fileSize, start + piece);
            auto packet = std::make_unique<i4_owned_ram_file>();
            packet->write_32(start);
            packet->write_32(end);
            packet->write(std::span(bytes).subspan(start, end - start));
            packet->setUsed(packet->tell());
            packets.push_back(std::move(packet));
        }
        std::shuffle(packets.begin(), packets.end(), random);
    }

    FileMeta record;
    std::vector<std::unique_ptr<i4_owned_ram_file>> packets;
};

f64 writePlain(const Sample& sample, const std::string& path) {
    const f64 start = seconds();
    const int file = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0777);
    MD4 digest;
    for (const auto& packet : sample.packets) {
        packet->seek(0);
        const u32 from = packet->read_32();
        const u32 length = packet->read_32() - from;
        if (::pwrite(file, packet->here(), length, from) != static_cast<ssize_t>(length)) return 0;
        digest.update({packet->here(), length});
    }
    benchmark::DoNotOptimize(digest.finish());
    ::close(file);
    return seconds() - start;
}

// Returns 0 if not every part is verified at the end.
f64 writeAsDownload(Folder& folder, const Sample& sample) {
    std::vector<std::unique_ptr<i4_owned_ram_file>> packets;  // the download takes over their memory
    for (const auto& packet : sample.packets) {
        packets.push_back(std::make_unique<i4_owned_ram_file>());
        packets.back()->write({packet->buffer(), packet->size()});
    }
    const f64 start = seconds();
    const Ref<Download> download = folder.makeDownload();
    FileMeta record;
    record.copyFrom(&sample.record);
    if (!download->create(record)) return 0;
    PartialFile& partial = download->partial();
    for (const auto& packet : packets) {
        packet->seek(0);
        const u32 from = packet->read_32();
        const u32 to = packet->read_32();
        partial.writeData(*packet, from, to);
    }
    bool whole = partial.checkParts() == PartialFile::Check::done && partial.isComplete();
    const f64 result = seconds() - start;
    for (u32 part = 0; part < partial.getPartCount(); ++part) whole = whole && partial.isVerified(part);
    partial.cancel();
    return whole ? result : 0;
}

void writeInRandomOrder(benchmark::State& state) {
    Folder folder;
    const Sample sample;
    std::vector<f64> ratios;
    for (auto _ : state) {
        const f64 plain = writePlain(sample, folder.file("plain"));
        std::filesystem::remove(folder.file("plain"));
        const f64 ours = writeAsDownload(folder, sample);
        if (plain == 0 || ours == 0) {
            state.SkipWithError("not all was written");
            break;
        }
        ratios.push_back(plain / ours);
        state.SetIterationTime(ours);
    }
    if (ratios.empty()) return;
    std::nth_element(ratios.begin(), ratios.begin() + static_cast<std::ptrdiff_t>(ratios.size() / 2),
                     ratios.end());
    state.counters["ratio"] = ratios[ratios.size() / 2];
    state.SetBytesProcessed(state.iterations() * static_cast<i64>(fileSize));
}
BENCHMARK(writeInRandomOrder)->UseManualTime()->Unit(benchmark::kMillisecond)->MinTime(3);

// Every thousandth chunk has arrived, and each source has other parts.
void memoryOf4Gigabytes(benchmark::State& state) {
    Folder folder;
    std::mt19937 random(4);
    for (auto _ : state) {
        FileMeta record;
        record.setName("large");
        record.setInt(TAG_SIZE, 4'294'967'295);
        const std::size_t before = ::mallinfo2().uordblks;
        {
            const Ref<Download> download = folder.makeDownload();
            if (!download->create(record)) {
                state.SkipWithError("no download");
                break;
            }
            for (u32 start = 0; start < 4'290'000'000; start += 1000 * piece) {
                download->partial().removeGap(start, start + piece);
                download->progress().addDone(start, start + piece);
            }
            std::vector<std::unique_ptr<FileSource>> sources;
            for (u32 id = 0; id < 500; ++id) {
                UserMeta user;
                user.id = 0x0A000000 + id;
                sources.push_back(std::make_unique<FileSource>(user, *download));
                BoolArray parts(static_cast<i32>(download->partial().getPartCount()));
                for (i32 i = 0; i < parts.size(); ++i) parts.set(i, random() % 2 == 0);
                sources.back()->setParts(parts);
            }
            state.counters["bytes"] = static_cast<f64>(::mallinfo2().uordblks - before);
            sources.clear();
            download->partial().cancel();
        }
    }
}
BENCHMARK(memoryOf4Gigabytes)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
