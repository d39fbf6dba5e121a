// The index server's index with a million files: the time of searches, and the memory per file.
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "index/FileIndex.h"
#include "meta/tagTable.h"

namespace {

constexpr u32 million = 1'000'000;

// Realistic names: a few words out of many, some far more common than others. Thread: one.
class Names {
  public:
    Names() {
        static const char* const parts[] = {"ra", "mo",  "ti", "le", "ka",  "sun", "ber", "no",
                                            "vi", "sta", "el", "do", "qui", "zen", "ar",  "the"};
        for (std::string& word : words_) {
            for (u32 i = 2 + below(3); i > 0; --i) word += parts[below(16)];
        }
    }
    u32 below(u32 n) { return std::uniform_int_distribution<u32>(0, n - 1)(engine_); }
    const std::string& word() {
        const u32 at = below(wordCount);
        return words_[at / (1 + below(200))];
    }
    std::string name() {
        std::string name = word();
        for (u32 i = 2 + below(4); i > 0; --i) name += " " + word();
        return name + (below(3) ? ".mp3" : ".avi");
    }

  private:
    std::mt19937 engine_{4711};
    static constexpr u32 wordCount = 40'000;
    std::vector<std::string> words_ = std::vector<std::string>(wordCount);
};

struct Million {
    Million() {
        const std::size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
        Names names;
        for (u32 i = 0; i < million; ++i) {
            Bytes bytes;
            const char rows[] = {TAG_NAME, TAG_SIZE, TAG_TYPE, TAG_FORMAT};
            ByteWriter out(bytes);
            out.put32(4).put8(META_TAG_STRING).text({rows, 1}).text(names.name());
            out.put8(META_TAG_INT).text({rows + 1, 1}).put32(names.below(50'000'000));
            out.put8(META_TAG_STRING).text({rows + 2, 1}).text(names.below(3) ? "Audio" : "Video");
            out.put8(META_TAG_STRING).text({rows + 3, 1}).text("mp3");
            ByteReader in(bytes);
            FileRecord record;
            record.read(in);
            MD4Hash hash;
            for (u8& byte : hash.bytes) byte = static_cast<u8>(names.below(256));
            index.publish(1 + i % 2000, hash, std::move(record));
        }
        heap = mallinfo2().uordblks + mallinfo2().hblkhd - before;
    }
    static Million& get() {
        static Million instance;
        return instance;
    }
    FileIndex index{FileIndex::Limits{2 * million, 1u << 30}, 1};
    std::size_t heap = 0;
};

std::unique_ptr<SearchNode> tree(int which) {
    const auto find = [](const char* text) { return std::make_unique<SN_FindStr>(text); };
    switch (which) {
        case 0:
            return find("mp3");  // nearly everything
        case 1:
            return find("zenquisun");  // a rare word
        case 2:
            return find("nosuchthinghere");  // nothing
        case 3:
            return find("the mo");  // common pieces that rarely occur together
        case 4:
            return find("zz");  // two characters that occur nowhere
        case 5:
            return std::make_unique<SN_Compound>(
                SEARCH_AND, std::make_unique<SN_StrTagCompare>("\x03", "audio"), find("quizen"));
        default:
            return std::make_unique<SN_IntTagCompare>("\x02", 50'000'001, COMPARE_ABOVE);  // needs a walk
    }
}

// The first 200 results, and whether there are more.
void searchAMillion(benchmark::State& state) {
    const FileIndex& index = Million::get().index;
    u32 found = 0;
    for (auto _ : state) {
        SearchRun run(tree(static_cast<int>(state.range(0))), 1);
        found = 0;
        u64 work = ~u64{0};
        index.search(run, work, [&](const FileRecord&, const MD4Hash&, u32) { return ++found <= 200; });
    }
    state.counters["found"] = found;
    state.counters["bytes_per_file"] = static_cast<double>(Million::get().heap) / million;
    state.counters["words_per_file"] = static_cast<double>(index.wordIndexBytes()) / million;
}
BENCHMARK(searchAMillion)->DenseRange(0, 6)->Unit(benchmark::kMillisecond);

// Adds a file and removes one, which now and then fills or dissolves a segment.
void publishAndWithdraw(benchmark::State& state) {
    FileIndex& index = Million::get().index;
    Names names;
    for (auto _ : state) {
        Bytes bytes;
        const char row = TAG_NAME;
        ByteWriter(bytes).put32(1).put8(META_TAG_STRING).text({&row, 1}).text(names.name());
        ByteReader in(bytes);
        FileRecord record;
        record.read(in);
        MD4Hash hash;
        for (u8& byte : hash.bytes) byte = static_cast<u8>(names.below(256));
        if (const auto number = index.publish(9999, hash, std::move(record))) {
            if (names.below(2)) index.withdraw(9999, *number);
        }
    }
}
BENCHMARK(publishAndWithdraw)->Unit(benchmark::kMicrosecond);

}  // namespace
