// The meta file of a download from anybody's bytes. What loads misses only bytes that the file has, and is
// saved and loaded again as the same.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "app/Preferences.h"
#include "download/Download.h"
#include "download/PartialList.h"
#include "fuzz/fuzz.h"
#include "i4min/file/file.h"

namespace {

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
    static Place place;
    BytesFile stream({data, size});
    FileMeta record;
    if (PartialList::readMeta(stream, record) != PartialList::MetaFile::whole) return 0;
    i32 priority = -1;
    bool paused = false;
    const Ref<PartialFile> partial = load(place.owner(), record, priority, paused);
    require(priority >= 0 && priority <= 2);
    if (!partial) return 0;
    for (const Gap& gap : partial->gaps()) {
        require(gap.start >= 0 && gap.start < gap.end && gap.end <= partial->fileSize());
    }

    PartialList list;
    partial->saveToList(list, priority, paused);
    i4_owned_ram_file saved;
    FileMeta read;
    require(list.count() == 1 && PartialList::writeMeta(saved, *list.get(0)));
    saved.seek(0);
    require(PartialList::readMeta(saved, read) == PartialList::MetaFile::whole);
    i32 samePriority = -1;
    bool samePaused = false;
    const Ref<PartialFile> again = load(place.owner(), read, samePriority, samePaused);
    require(again && samePriority == priority && samePaused == paused);
    require(again->gaps() == partial->gaps() && again->fileSize() == partial->fileSize());
    require(again->getHash() == partial->getHash() && again->transferred() == partial->transferred());
    return 0;
}
