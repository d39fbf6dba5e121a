#include "download/HashThread.h"

#include <limits>
#include <utility>

#include "download/Collection.h"
#include "download/Download.h"
#include "download/ShareList.h"
#include "i4min/file/filesystem.h"
#include "i4min/memory/error.h"
#include "meta/FileList.h"

namespace {

constexpr u32 batchMs = 40;                                     // of work on unchanged files in one turn
constexpr u64 largestShared = std::numeric_limits<u32>::max();  // bytes

}  // namespace

HashThread::HashThread(Core& core, DownloadUI& ui, HashDuties& duties)
    : Thread(core.host.scheduler),
      core_(core),
      clock_(core.host.clock),
      disk_(core.host.disk),
      ui_(ui),
      duties_(duties) {}

HashThread::~HashThread() { stop(); }

void HashThread::hashDirs(std::vector<i4_string> dirs) {
    core_.log.printLine("%s", core_.strings.get(STRINGS_LOADING_SHARED));
    for (const i4_string& dir : dirs) core_.log.printVerbose("Hash List: %s\n", dir.c_str());
    {
        const i4_lock guard(lock_);
        request_ = std::move(dirs);
        asked_ = 1;
        finished_ = 0;
    }
    wake();
    // The thread either sees the request, or has decided to end before it came: that end is waited for, since
    // start() does nothing until then.
    if (state() != running) stop();
    start();
}

void HashThread::addPartial(Ref<Download> download) {
    const i4_lock guard(lock_);
    partials_.push_back(std::move(download));
}

Rest HashThread::run() {
    try {
        turn();
    } catch (const i4_err&) {
        core_.log.print("Exception during hash.");
        listing_.reset();
        dirs_.clear();
        endUnlessAsked(false);
    }
    return Rest::none();
}

void HashThread::turn() {
    takeRequest();
    if (hasPartial()) {
        verifyPartial();
    } else if (!dirs_.empty()) {
        takeFiles();
    } else {
        endRun();
    }
}

void HashThread::takeRequest() {
    std::vector<i4_string> dirs;
    {
        const i4_lock guard(lock_);
        if (!request_) return;
        dirs = *std::exchange(request_, std::nullopt);
        asked_ = 0;
    }
    listing_.reset();
    dirs_.clear();
    for (const i4_string& dir : dirs) dirs_.emplace_back(dir.view());
    // The shared list was emptied before this request was made; what came in since then doesn't belong to it.
    FileList old(LockRank::none);
    for (FileMeta* file : std::exchange(shared_, {})) old.add(file);
    duties_.shared().removeAll(&old);
}

bool HashThread::hasPartial() const {
    const i4_lock guard(lock_);
    return !partials_.empty();
}

void HashThread::verifyPartial() {
    Ref<Download> download;
    {
        const i4_lock guard(lock_);
        download = std::move(partials_.front());
        partials_.pop_front();
    }
    duties_.verify(download, [this] { return isStopping(); });
}

void HashThread::takeFiles() {
    const u32 start = clock_.ticks();
    while (!wantsToLeave() && clock_.ticks() - start < batchMs) {
        if (!listing_ && !listDirectory()) return;
        if (fileIndex_ == listing_->files.size()) {
            leaveDirectory();
            return;
        }
        if (!takeFile()) return;
    }
}

// False, and the directory is left for good, where it can't be listed.
bool HashThread::listDirectory() {
    auto listing = std::make_unique<i4_directory_list>();
    const char* dir = dirs_.front().c_str();
    if (!disk_.list(dir, *listing, true)) {
        core_.log.printLine("%s: %s", core_.strings.get(STRINGS_COULDNT_HASH), dir);
        duties_.shareDirs().removeDir(dir);
        leaveDirectory();
        return false;
    }
    listing_ = std::move(listing);
    fileIndex_ = 0;
    listingIsOld_ = false;
    return true;
}

void HashThread::leaveDirectory() {
    listing_.reset();
    dirs_.pop_front();
}

// Whether such a file can be shared; says why not where the user would wonder.
bool HashThread::isShareable(const std::string& path, const char* name, const i4_file_status& status) {
    switch (status.kind) {
        case i4_file_kind::unknown:
            core_.log.print("Couldn't get status of %s\n", name);
            return false;
        case i4_file_kind::directory:
            return false;
        case i4_file_kind::other:
            core_.log.printLine("%s isn't shared: it is no regular file", path.c_str());
            return false;
        case i4_file_kind::regular:
            break;
    }
    if (status.size <= largestShared) return true;
    core_.log.printLine(
        "%s isn't shared: it has %llu bytes, and the most that a shared file can have is %llu", path.c_str(),
        static_cast<unsigned long long>(status.size), static_cast<unsigned long long>(largestShared));
    return false;
}

void HashThread::couldntHash(const char* name) { core_.log.print("ERROR: Couldn't hash %s\n", name); }

// True if the next file didn't have to be read.
bool HashThread::takeFile() {
    const char* name = listing_->files[fileIndex_].c_str();
    const std::string path = dirs_.front() + core_.preferences.pathSeparator + name;
    i4_file_status status = listing_->file_status[fileIndex_];
    ++fileIndex_;
    if (listingIsOld_) static_cast<void>(disk_.status(path.c_str(), status));  // else as the listing has it
    if (!isShareable(path, name, status)) return true;
    FileMeta* file = duties_.known().find(static_cast<u32>(status.size), status.last_modified, name);
    if (file) {
        share(file, [&path](FileMeta& record) { record.setPath(path.c_str()); });
        return true;
    }
    listingIsOld_ = true;
    readFile(path, name, status);
    return false;
}

void HashThread::readFile(const std::string& path, const char* name, const i4_file_status& status) {
    ui_.hashing(name);
    MD4Hash hash;
    std::vector<MD4Hash> parts;
    u64 size = 0;
    const HashOutcome outcome = MD4Hash::computeFile(
        hash, disk_, path.c_str(), parts, [this] { return wantsToLeave(); }, &size);
    if (outcome == HashOutcome::abandoned) return;
    if (outcome != HashOutcome::whole || size != status.size) {
        couldntHash(name);
        return;
    }
    if (FileMeta* file = duties_.known().find(hash)) {
        share(file, [&](FileMeta& record) {
            record.setPath(path.c_str());
            record.date = status.last_modified;
            record.setName(name);
            // A collection may have claimed the hash before.
            record.setInt(TAG_SIZE, static_cast<u32>(size));
            record.partHashes = parts;
        });
        return;
    }
    const auto plainRecord = [&] {
        auto file = std::make_unique<FileMeta>();
        file->date = status.last_modified;
        file->hash = hash;
        file->partHashes = parts;
        return file;
    };
    std::unique_ptr<FileMeta> file = plainRecord();
    i4_file_status now;
    if (!duties_.importFile(*file, path.c_str(), name) || file->hash.isZero()) {
        core_.log.printLine("Import failed: %s", name);
    } else if (!disk_.status(path.c_str(), now) || now.size != size ||
               now.last_modified != status.last_modified) {
        couldntHash(name);
    } else if (file->hash != hash && isTaken(*file)) {
        file = plainRecord();
        file->setName(name);
        file->setInt(TAG_SIZE, static_cast<u32>(size));
        file->setPath(path.c_str());
        enter(std::move(file));
    } else {
        enter(std::move(file));
    }
}

// Whether the hash that a collection claims is another file's: of one that is shared now, or is known and
// isn't this very collection.
bool HashThread::isTaken(const FileMeta& claim) {
    {
        const i4_guard guard(duties_.shared());
        const FileMeta* other = duties_.shared().findUnsafe(claim.hash);
        if (other) return other->path.isNull() || i4_strcmp(other->path.c_str(), claim.path.c_str()) != 0;
    }
    const i4_guard guard(duties_.known());
    const FileMeta* other = duties_.known().findUnsafe(claim.hash);
    return other &&
           !(Collection::isOne(*other) && other->matches(claim.getSize(), claim.date, claim.getName()));
}

void HashThread::enter(std::unique_ptr<FileMeta> file) {
    // A collection brings a record of its own, which doesn't tell this file's time: it is hashed at each
    // start, and is known all the same.
    if (FileMeta* known = duties_.known().find(file->hash)) {
        share(known, [&file](FileMeta& record) { record.setPath(file->path.c_str()); });
        return;
    }
    shared_.push_back(file.get());
    duties_.addSharedFile(file.release());
}

void HashThread::share(FileMeta* file, const std::function<void(FileMeta&)>& change) {
    duties_.changeFile(file, change);
    duties_.shared().add(file);
    shared_.push_back(file);
}

void HashThread::endRun() {
    ui_.hashing(core_.strings.get(STRINGS_NONE));
    core_.log.printLine("%s", core_.strings.get(STRINGS_DONE_LOADING_SHARED));
    core_.files.save(duties_.known(), core_.preferences.knownPath.c_str());
    duties_.shareDirs().save();
    if (endUnlessAsked(true)) duties_.publish();
}

// Ends the thread, unless there is something to do. A request that comes later finds it ending.
bool HashThread::endUnlessAsked(bool finished) {
    const i4_lock guard(lock_);
    if (request_ || !partials_.empty()) return false;
    finished_ = finished ? 1 : 0;
    endLoop();
    return true;
}
