// The meta file of a download from anybody's bytes. What loads misses only bytes that the file has, and is
// saved and loaded again as the same.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "app/Preferences.h"
#include "app/UIInterface.h"
#include "download/Download.h"
#include "download/PartialList.h"
#include "i4min/file/file.h"

namespace {

// What doesn't load is told in lines, which nobody reads here.
class Silence : public CoreUIInterface {
  public:
    void printLine(const char*, ...) override PRINTF_LIKE {}
    void print(const char*, ...) override PRINTF_LIKE {}
};

// A temp directory with the one data file, 1.part, and a download to load for.
class Place {
  public:
    Place() : path_(std::filesystem::temp_directory_path() / ("fuzz_partmet." + std::to_string(::getpid()))) {
        std::filesystem::create_directory(path_);
        preferences.setTemp(path_.c_str());
        std::ofstream(path_ / "1.part") << std::string(1000, 'x');
    }
    ~Place() { std::filesystem::remove_all(path_); }
    Download& owner() { return *owner_; }

  private:
    const std::filesystem::path path_;
    const Ref<Download> owner_{new Download};
};

Ref<PartialFile> load(Download& owner, const FileMeta& record, i32& priority, bool& paused) {
    Ref<PartialFile> partial(new PartialFile(&owner));
    const PartialFile::Load result = partial->load(record, priority);
    paused = result == PartialFile::Load::paused;
    return result == PartialFile::Load::failed ? Ref<PartialFile>() : partial;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Silence silence;
    theLog = &silence;
    theUI = &silence;
    static Place place;
    std::vector<std::uint8_t> bytes(data, data + size);
    i4_ram_file_class stream(bytes.data(), static_cast<u32>(size), 0);
    FileMeta record;
    if (PartialList::readMeta(stream, record) != PartialList::MetaFile::whole) return 0;
    i32 priority = -1;
    bool paused = false;
    const Ref<PartialFile> partial = load(place.owner(), record, priority, paused);
    if (priority < 0 || priority > 2) std::abort();
    if (!partial) return 0;
    for (const Gap& gap : partial->gaps()) {
        if (gap.start < 0 || gap.start >= gap.end || gap.end > partial->fileSize()) std::abort();
    }

    PartialList list;
    partial->saveToList(list, priority, paused);
    i4_owned_ram_file saved;
    FileMeta read;
    if (list.count() != 1 || !PartialList::writeMeta(saved, *list.get(0))) std::abort();
    saved.seek(0);
    if (PartialList::readMeta(saved, read) != PartialList::MetaFile::whole) std::abort();
    i32 samePriority = -1;
    bool samePaused = false;
    const Ref<PartialFile> again = load(place.owner(), read, samePriority, samePaused);
    if (!again || samePriority != priority || samePaused != paused) std::abort();
    if (again->gaps() != partial->gaps() || again->fileSize() != partial->fileSize()) std::abort();
    if (again->getHash() != partial->getHash() || again->transferred() != partial->transferred())
        std::abort();
    return 0;
}
