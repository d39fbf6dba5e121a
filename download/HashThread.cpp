#include "download/HashThread.h"

#include <limits>
#include <utility>

#include "app/Preferences.h"
#include "app/StringTable.h"
#include "app/UIInterface.h"
#include "download/ShareList.h"
#include "i4min/file/filesystem.h"
#include "i4min/memory/error.h"
#include "i4min/threads/linux/i4_time.h"
#include "meta/FileList.h"

namespace {

constexpr u32 pauseMs = 40;                                     // before a file that must be read
constexpr u32 batchMs = 40;                                     // of work on unchanged files in one turn
constexpr u64 largestShared = std::numeric_limits<u32>::max();  // bytes

// Whether such a file can be shared; says why not where the user would wonder.
bool isShareable(const std::string& path, const char* name, const i4_file_status& status) {
    switch (status.kind) {
        case i4_file_kind::unknown:
            theLog->print("Couldn't get status of %s\n", name);
            return false;
        case i4_file_kind::directory:
            return false;
        case i4_file_kind::other:
            theLog->printLine("%s isn't shared: it is no regular file", path.c_str());
            return false;
        case i4_file_kind::regular:
            break;
    }
    if (status.size <= largestShared) return true;
    theLog->printLine("%s isn't shared: it has %llu bytes, and the most that a shared file can have is %llu",
                      path.c_str(), static_cast<unsigned long long>(status.size),
                      static_cast<unsigned long long>(largestShared));
    return false;
}

void couldntHash(const char* name) { theLog->print("ERROR: Couldn't hash %s\n", name); }

}  // namespace

HashThread::HashThread(HashDuties& duties) : duties_(duties) {}

HashThread::~HashThread() { stop(); }

void HashThread::hashDirs(std::vector<i4_string> dirs) {
    theLog->printLine("%s", stringTable.get(STRINGS_LOADING_SHARED));
    for (const i4_string& dir : dirs) theLog->printVerbose("Hash List: %s\n", dir.c_str());
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

void HashThread::run() {
    try {
        turn();
    } catch (const i4_err&) {
        theLog->print("Exception during hash.");
        listing_.reset();
        dirs_.clear();
        endUnlessAsked(false);
    }
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
    sleepFor(pauseMs);
    if (isStopping()) return;
    Ref<Download> download;
    {
        const i4_lock guard(lock_);
        download = std::move(partials_.front());
        partials_.pop_front();
    }
    duties_.verify(download, [this] { return isStopping(); });
}

void HashThread::takeFiles() {
    const u32 start = i4_ticks();
    while (!wantsToLeave() && i4_ticks() - start < batchMs) {
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
    if (!i4_get_directory(dir, *listing, true)) {
        theLog->printLine("%s: %s", stringTable.get(STRINGS_COULDNT_HASH), dir);
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

// True if the next file didn't have to be read.
bool HashThread::takeFile() {
    const char* name = listing_->files[fileIndex_].c_str();
    const std::string path = dirs_.front() + preferences.pathSeparator + name;
    i4_file_status status = listing_->file_status[fileIndex_];
    ++fileIndex_;
    if (listingIsOld_) i4_get_status(path.c_str(), status);
    if (!isShareable(path, name, status)) return true;
    FileMeta* file = duties_.known().find(static_cast<u32>(status.size), status.last_modified, name);
    if (file) {
        share(file, [&path](FileMeta& record) { record.setPath(path.c_str()); });
        return true;
    }
    listingIsOld_ = true;
    sleepFor(pauseMs);
    if (wantsToLeave()) return false;
    i4_get_status(path.c_str(), status);
    if (isShareable(path, name, status)) readFile(path, name, status);
    return false;
}

void HashThread::readFile(const std::string& path, const char* name, const i4_file_status& status) {
    theUI->hashing(name);
    MD4Hash hash;
    std::vector<MD4Hash> parts;
    u64 size = 0;
    const HashOutcome outcome = MD4Hash::computeFile(
        hash, path.c_str(), parts, [this] { return wantsToLeave(); }, &size);
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
        });
        return;
    }
    auto file = std::make_unique<FileMeta>();
    file->date = status.last_modified;
    file->hash = hash;
    file->partHashes = std::move(parts);
    i4_file_status now;
    if (!duties_.importFile(*file, path.c_str(), name) || file->hash.isZero()) {
        theLog->printLine("Import failed: %s", name);
    } else if (!i4_get_status(path.c_str(), now) || now.size != size ||
               now.last_modified != status.last_modified) {
        couldntHash(name);
    } else {
        enter(std::move(file));
    }
}

void HashThread::enter(std::unique_ptr<FileMeta> file) {
    // A collection brings a record of its own, which doesn't tell this file's time: it is hashed at each
    // start, and is known all the same.
    FileMeta* known = duties_.known().find(file->getSize(), file->date, file->getName());
    if (known && known->hash == file->hash) {
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
    theUI->hashing(stringTable.get(STRINGS_NONE));
    theLog->printLine("%s", stringTable.get(STRINGS_DONE_LOADING_SHARED));
    duties_.known().save(preferences.knownPath.c_str());
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
