// PartialFile, one file on its way in: its data file in the temp directory, what is missing of it, and which
// parts have passed their hash.
#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <vector>

#include "download/DataFile.h"
#include "download/GapList.h"
#include "download/Verifier.h"
#include "i4min/file/file.h"
#include "i4min/memory/relaxed.h"
#include "meta/BoolArray.h"
#include "meta/FileMeta.h"
#include "peer/PeerNeeds.h"

class DLProgress;
struct DownloadNeeds;

// The gaps are the ranges that are still missing, or that failed their hash.
// Thread: under Download's lock, but for what says otherwise.
// Owns: its files.    Borrows: the progress of its download; the published record, which lives with the
// process.
class PartialFile : public GapList, public PartReader {
  public:
    enum Status : i32 { incomplete = 0, moved = 1, gone = 2 };
    enum class Load { failed = 0, running = 1, paused = 2 };
    enum class Completion { good, corrupted, abandoned };
    enum class Check { done, unreadable, abandoned };

    PartialFile(const DownloadNeeds& needs, DLProgress& progress);
    ~PartialFile() override;

    // A new download of `meta`. False when the data file can't be made.
    bool create(const FileMeta& meta);
    // A download found at start, from the record of its meta file. A failure is said in one line. `priority`
    // is what the record tells.
    Load load(const FileMeta& record, i32& priority);

    // Writes what is missing of a packet's bytes for [start, end); the rest of the file stays as it is. A
    // range that makes no sense, or would make one of far too many gaps, writes nothing. The packet's block
    // is taken, and freed once it is on the disk. The result is what was missing.
    std::vector<Gap> writeData(i4_ram_file_class& packet, u32 start, u32 end);
    // Opens again what couldn't be written since the last call. The result is the system's error, 0 for none.
    int reopenLost();

    // Whether all of the part is here, and not checked, and its hash is known.
    bool mayCheck(u32 part) const;
    // The part, for the verifier, which hashes it meanwhile; empty where it can't be read.
    std::optional<PartToCheck> beginCheck(u32 part);
    // A part that failed, or couldn't be read, is missing again.
    void endCheck(const CheckedPart& checked);
    // A file of one part failed, and nobody else has it: it ends as it is.
    void acceptAsItIs(u32 part);
    bool isChecking() const { return checking_ > 0; }
    u32 partLength(u32 part) const;
    bool isHere(u32 part) const;  // all of its bytes
    // All of the part is missing again.
    void reopenPart(u32 part);
    // Verifies every part that is complete. Thread: the hash thread's, in a state that accepts no data.
    Check checkParts(const GiveUp& giveUp = {});
    // For uploads. Thread: any.
    Read readData(u8* buffer, u32 start, u32 end) override EXCLUDES(fileLock_);
    void closeFiles() EXCLUDES(fileLock_);
    // Hashes the whole file and moves it to the incoming directory, or gives up, with everything as it was.
    // Thread: the completer, in a state that accepts no data.
    Completion complete(const GiveUp& giveUp);
    void cancel();  // deletes data and meta file
    // Completed or cancelled: there is nothing to save any more. Thread: any.
    bool isFinished() const { return finished_; }
    // Once finished, removes a meta file that was written meanwhile. Thread: any.
    void dropStaleMeta() const;
    // The record of the meta file; null where there is nothing to save.
    std::unique_ptr<FileMeta> makeRecord(i32 priority, bool paused);
    void publish();    // enters the file, still incomplete, into the shared lists
    void republish();  // again, after the shared list was emptied
    // The part hashes, as a peer sent them: u16 count, 16 bytes each. They count only if there are as many as
    // the file has parts and their MD4 is the file's hash.
    // True where they do.
    bool setPartHashes(i4_file& stream);
    // The name of the data file that a meta file's record is about; may be null.
    static const char* dataFileOf(const FileMeta& record);
    bool hasNeededPart(const BoolArray& parts) const;  // false for an array of another length

    // Where the finished file lies, null before. Thread: any.
    i4_string finalPath() const override EXCLUDES(fileLock_);
    i4_string getName() const override;
    // The file's record, part hashes included. Thread: any.
    void copyMeta(FileMeta& out) const EXCLUDES(doneLock_);
    const MD4Hash& getHash() const { return meta_.hash; }
    u32 getPartCount() const { return partCount_; }
    bool isVerified(u32 part) const { return partsDone_.get(static_cast<i32>(part)); }
    // The flags of the parts that may be told to a peer. Thread: any.
    void copyPartsDone(BoolArray& out) const EXCLUDES(doneLock_);
    bool partHashesKnown() const { return partHashesKnown_; }
    u32 fileSize() const { return fileSize_; }
    u32 fileEnd() const { return fileEnd_; }
    u32 transferred() const { return transferred_; }
    Status status() const { return static_cast<Status>(status_.get()); }
    const i4_string& tempFileName() const { return tempFileName_; }

  private:
    enum class PartCheck { missing, unknown, good, corrupted, unreadable };
    void finishSetup(const FileMeta& tags, const FileMeta& record);
    bool openForWriting(u32 flags);
    void reopenLostEnd();
    bool isHashSet(const std::vector<MD4Hash>& hashes) const;
    PartCheck checkPart(u32 part);
    const MD4Hash* hashOfPart(u32 part) const;
    void markVerified(u32 part);
    void sayUnreadable() const;
    void sayCorrupted(u32 part) const;
    void keepCorrupted();
    bool enterIncoming(const std::vector<MD4Hash>& parts, const GiveUp& giveUp);
    void endUploads(Status status) EXCLUDES(fileLock_);
    i4_string metaPath() const;

    i4_string pathInTemp(const i4_string& name) const;

    const DownloadNeeds& needs_;
    DLProgress& progress_;
    mutable i4_mutex fileLock_{LockRank::partialRead};
    mutable i4_mutex doneLock_{LockRank::leaf};
    i4_string tempFileName_;
    std::unique_ptr<i4_file> readFile_ GUARDED_BY(fileLock_);
    i4_string finalPath_ GUARDED_BY(fileLock_){nullptr};
    DataFile writeFile_;
    u32 partCount_ = 0;
    Relaxed<i32> status_{incomplete};
    FileMeta meta_;
    std::atomic<FileMeta*> sharedMeta_{nullptr};
    BoolArray partsDone_;  // written under Download's lock and doneLock_
    Relaxed<u32> fileEnd_;
    Relaxed<u32> fileSize_;
    Relaxed<u32> transferred_;
    bool partHashesKnown_ = false;
    std::vector<bool> isWithVerifier_;  // by part
    u32 checking_ = 0;                  // parts that are with the verifier
    bool isAccepted_ = false;
    bool failed_ = false;                // it couldn't be loaded: its files stay as they are
    std::atomic<bool> finished_{false};  // before the meta file is removed
};
