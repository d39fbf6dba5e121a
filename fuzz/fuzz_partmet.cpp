// The meta file of a download from any bytes. What loads lacks only ranges inside the file, and is the same
// when saved and loaded again.
#include "download/Download.h"
#include "download/PartialList.h"
#include "fuzz/fuzz.h"
#include "tests/support/files.h"

namespace {

// Makes a temp directory with one data file, 1.part.
bool setUp() {
    OwnEngine& own = quietEngine();
    const TemporaryDirectory& home = own.directory;
    own.preferences.setTemp(home.path().c_str());
    writeFile(home.file("1.part"), std::string(1000, 'x'));
    return true;
}

struct Loaded {
    explicit Loaded(const FileMeta& record) {
        const PartialFile::Load result = partial->load(record, priority);
        failed = result == PartialFile::Load::failed;
        paused = result == PartialFile::Load::paused;
    }
    DLProgress progress;
    const Ref<PartialFile> partial{new PartialFile(quietEngine().engine.downloadNeeds, progress)};
    i32 priority = -1;
    bool failed;
    bool paused;
};

}  // namespace

FUZZ_TARGET(partmet) {
    static const bool ready = setUp();
    require(ready);
    BytesFile stream({data, size});
    FileMeta record;
    if (PartialList::readMeta(stream, record) != PartialList::MetaFile::whole) return;
    const Loaded first(record);
    require(first.priority >= 0 && first.priority <= 2);
    if (first.failed) return;
    for (const Gap& gap : first.partial->gaps()) {
        require(gap.start >= 0 && gap.start < gap.end && gap.end <= first.partial->fileSize());
    }

    const std::unique_ptr<FileMeta> kept = first.partial->makeRecord(first.priority, first.paused);
    require(kept != nullptr);
    BytesFile saved(written([&](i4_file& out) { require(PartialList::writeMeta(out, *kept)); }));
    FileMeta read;
    require(PartialList::readMeta(saved, read) == PartialList::MetaFile::whole);
    const Loaded again(read);
    require(!again.failed && again.priority == first.priority && again.paused == first.paused);
    require(again.partial->gaps() == first.partial->gaps());
    require(again.partial->fileSize() == first.partial->fileSize());
    require(again.partial->getHash() == first.partial->getHash());
    require(again.partial->transferred() == first.partial->transferred());
}
