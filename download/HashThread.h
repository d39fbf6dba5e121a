// HashThread verifies loaded partial files, and turns the shared directories into the shared list: it
// recognises what is known, hashes what isn't, and has the importers fill in the tags.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "download/DownloadNeeds.h"
#include "i4min/memory/mutex.h"
#include "i4min/memory/relaxed.h"
#include "i4min/string/string.h"
#include "i4min/threads/linux/RefCounter.h"
#include "i4min/threads/linux/Thread.h"
#include "meta/MD4Hash.h"

class ShareList;
struct i4_directory_list;
struct i4_file_status;

// What HashThread works on, so that a test can stand in for the application. Thread: the hash thread's.
class HashDuties : public Library {
  public:
    virtual ShareList& shareDirs() = 0;
    // Fills in the tags of a file and its path. False where it can't be opened.
    virtual bool importFile(FileMeta& file, const char* path, const char* name) = 0;
    // Checks the parts of a loaded file and tells the download how it ended; nothing of it once `giveUp` says
    // so.
    virtual void verify(const Ref<Download>& download, const GiveUp& giveUp) = 0;
    virtual void publish() = 0;  // a whole run has ended: what is shared may be offered

  protected:
    ~HashDuties() = default;
};

// One request is one run: first the partial files, one a turn, then directory by directory. Whoever asks
// never waits for a file: a new request ends the reading of the file at hand and starts the run over.
//
// A file that has to be read is a turn of its own. Files that are known unchanged are taken together, by what
// the listing says of them, up to 40 ms a turn.
// Thread: any for the operations; the work runs on its own thread, from a request until all is done.
class HashThread : public Thread {
  public:
    HashThread(Core& core, DownloadUI& ui, HashDuties& duties);
    ~HashThread() override;
    Rest run() override;
    bool isBackground() const override { return true; }

    // Starts over with these directories. What an unfinished run had put into the shared list goes out again.
    void hashDirs(std::vector<i4_string> dirs) EXCLUDES(lock_);
    // A loaded file that waits to be verified; it goes before the directories of the next request.
    void addPartial(Ref<Download> download) EXCLUDES(lock_);
    // A whole run has ended, so that the shared list may be published.
    bool isFinished() const { return finished_ != 0; }

  private:
    void turn() EXCLUDES(lock_);
    void takeRequest() EXCLUDES(lock_);
    bool hasPartial() const EXCLUDES(lock_);
    void verifyPartial() EXCLUDES(lock_);
    void takeFiles();
    bool listDirectory();
    void leaveDirectory();
    bool takeFile();
    void readFile(const std::string& path, const char* name, const i4_file_status& status);
    bool isTaken(const FileMeta& claim);
    void enter(std::unique_ptr<FileMeta> file);
    void share(FileMeta* file, const std::function<void(FileMeta&)>& change);
    void endRun() EXCLUDES(lock_);
    bool endUnlessAsked(bool finished) EXCLUDES(lock_);
    bool wantsToLeave() const { return isStopping() || asked_; }

    bool isShareable(const std::string& path, const char* name, const i4_file_status& status);
    void couldntHash(const char* name);

    Core& core_;
    const Clock& clock_;
    Disk& disk_;
    DownloadUI& ui_;
    HashDuties& duties_;
    mutable i4_mutex lock_{LockRank::leaf};  // around what other threads ask for
    std::deque<Ref<Download>> partials_ GUARDED_BY(lock_);
    std::optional<std::vector<i4_string>> request_ GUARDED_BY(lock_);
    Relaxed<u8> asked_{0};  // there is a request; written under lock_
    Relaxed<u8> finished_{0};

    // The run that is going on; the hash thread's own.
    std::deque<std::string> dirs_;  // still to do, the present one first
    std::unique_ptr<i4_directory_list> listing_;
    std::size_t fileIndex_ = 0;      // next in listing_
    bool listingIsOld_ = false;      // time went by since the listing was made
    std::vector<FileMeta*> shared_;  // what this run has put into the shared list
};
