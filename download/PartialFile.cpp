#include "download/PartialFile.h"

#include <algorithm>
#include <map>
#include <utility>
#include <vector>

#include "app/ClientApp.h"
#include "app/Preferences.h"
#include "app/StringTable.h"
#include "app/UIInterface.h"
#include "download/Download.h"
#include "download/PartFileNamer.h"
#include "download/PartialList.h"
#include "i4min/file/filesystem.h"
#include "i4min/memory/error.h"

namespace {

// The gaps in a meta file's record are pairs of named ints: the name of the k-th start is the byte of
// TAG_GAP_START and the decimal k, that of its end the byte of TAG_GAP_END and k; k counts from 0, in list
// order.
i4_string gapTagName(TagIndex index, u32 k) {
    i4_string name;
    name.format("%s%d", tagTable[index].wireName, k);
    return name;
}

// The k of a gap tag's name; false for any other name.
bool isGapTag(const char* name, TagIndex index, u32& k) {
    if (!name || name[0] != tagTable[index].wireName[0] || !name[1]) return false;
    u64 number = 0;
    for (const char* c = name + 1; *c; ++c) {
        if (*c < '0' || *c > '9' || number > 0xFFFFFFFF) return false;
        number = number * 10 + static_cast<u64>(*c - '0');
    }
    k = static_cast<u32>(number);
    return gapTagName(index, k) == name;
}

// Takes the gaps out of a record: `rest` gets its other tags.
std::vector<Gap> takeGaps(const FileMeta& record, FileMeta& rest) {
    std::map<u32, u32> starts;
    std::map<u32, u32> ends;
    for (LL<MetaTag>::Cursor c; const MetaTag* tag = record.getTags().next(c);) {
        u32 k = 0;
        const bool isInt = tag->type() == META_TAG_INT;
        if (isInt && isGapTag(tag->name(), TAG_GAP_START, k)) {
            starts.try_emplace(k, *static_cast<const u32*>(tag->getValue()));
        } else if (isInt && isGapTag(tag->name(), TAG_GAP_END, k)) {
            ends.try_emplace(k, *static_cast<const u32*>(tag->getValue()));
        } else {
            rest.addTag(tag->clone());
        }
    }
    std::vector<Gap> gaps;
    for (u32 k = 0; starts.contains(k) && ends.contains(k); ++k) gaps.push_back({starts[k], ends[k]});
    return gaps;
}

bool isPlainComponent(const char* name) { return name && safeFileName(name) == name; }

i4_string pathInTemp(const i4_string& name) {
    const i4_string directory = preferences.tempDir();
    i4_string path;
    path.format("%S%c%S", &directory, preferences.pathSeparator, &name);
    return path;
}

}  // namespace

PartialFile::~PartialFile() { closeFiles(); }

void PartialFile::finishSetup() {
    meta_.setPath(pathInTemp(tempFileName_).c_str());
    fileSize_ = meta_.getSize();
    partCount_ = fileSize_ / PARTSIZE + 1;
    partsDone_.setSize(static_cast<i32>(partCount_));
    partHashesKnown_ = partCount_ < 2;
}

bool PartialFile::openForWriting(u32 flags) {
    writeFile_ = i4_open_exact(meta_.path.c_str(), I4_FILE_READ | I4_FILE_WRITE | flags);
    if (writeFile_) fileEnd_ = writeFile_->size();
    return writeFile_ != nullptr;
}

bool PartialFile::create(const FileMeta& meta) {
    partFileNamer.makeTempName(tempFileName_);
    meta_.copyFrom(&meta);
    finishSetup();
    if (fileSize_ > 0) append({0, fileSize_});
    return openForWriting(I4_FILE_TRUNCATE);
}

PartialFile::Load PartialFile::load(const FileMeta& record, i32& priority) {
    failed_ = true;
    FileMeta rest;
    const std::vector<Gap> gaps = takeGaps(record, rest);
    const char* name = rest.getText(TAG_TEMPFILENAME);
    tempFileName_ = name ? name : rest.getName();
    priority = std::clamp(static_cast<i32>(rest.getInt(TAG_PRIORITY)), 0, 2);
    const bool paused = rest.getInt(TAG_STATE) != 0;
    transferred_ = rest.getInt(TAG_PART_TRANS);
    for (const TagIndex tag : {TAG_STATE, TAG_TEMPFILENAME, TAG_PRIORITY, TAG_PART_TRANS})
        rest.removeTag(tag);
    meta_.copyFrom(&rest);
    meta_.hash = record.hash;
    meta_.partHashes = record.partHashes;
    finishSetup();
    for (const Gap& gap : gaps) {
        const i64 end = std::min<i64>(gap.end, fileSize_);
        if (gap.start < end) append({gap.start, end});
    }
    i4_file_status status;
    if (!isPlainComponent(tempFileName_.c_str()) || !i4_get_status(meta_.path.c_str(), status)) {
        theLog->printLine("%s not found.", meta_.path.c_str());
        return Load::failed;
    }
    if (status.kind != i4_file_kind::regular || !openForWriting(0)) {
        theLog->printLine("%s Couldn't be opened.", meta_.path.c_str());
        return Load::failed;
    }
    if (fileEnd_ < fileSize_) {
        // What lies behind the end of the data file can't be here, whatever the record says.
        GapList missing;
        missing.assign(*this);
        missing.invert(fileSize_);
        if (missing.overlaps(fileEnd_, fileSize_)) {
            theLog->printLine("%s is shorter than it was; what is missing is fetched again.",
                              meta_.path.c_str());
            addGap(fileEnd_, fileSize_);
        }
    }
    failed_ = false;
    return paused ? Load::paused : Load::running;
}

bool PartialFile::writeData(i4_ram_file_class& packet, u32& start, u32& end) {
    const u32 from = packet.read_32();
    const u32 to = packet.read_32();
    if (to <= from || from > fileSize_ || to > fileSize_ || !writeFile_ ||
        to - from > packet.bytesLeft().value_or(0)) {
        theLog->printVerbose("Crazy packet\n");
        return true;
    }
    const u32 length = to - from;
    transferred_.add(length);
    writeFile_->seek(from);
    const i32 written = writeFile_->write(packet.here(), length);
    if (written != static_cast<i32>(length))
        theLog->print("Not all written(%d,%d)", written, static_cast<i32>(length));
    fileEnd_ = std::max(fileEnd_.get(), to);
    removeGap(from, to);
    start = from;
    end = to;
    // Marked as here before the parts are checked, so that one which fails is open as a whole.
    download_->progress().addDone(from, to);
    checkParts();
    return !isEmpty();
}

PartialFile::PartCheck PartialFile::checkPart(u32 part) {
    const u32 start = part * PARTSIZE;
    const u32 end = static_cast<u32>(std::min<u64>(static_cast<u64>(start) + PARTSIZE, fileSize_));
    if (overlaps(start, end)) return PartCheck::missing;
    if (part >= meta_.partHashes.size() || !writeFile_) return PartCheck::unknown;
    writeFile_->flush();
    MD4Hash hash;
    const i4_string name = getName();
    if (!MD4Hash::compute(hash, *writeFile_, start, end)) {
        theLog->printLine("ERROR file couldn't be hashed: %s ", name.isNull() ? "" : name.c_str());
        theLog->printLine("Please close the tarnwick and run scandisk.");
        reopenPart(start, end);
        return PartCheck::unreadable;
    }
    if (hash == meta_.partHashes[part]) return PartCheck::good;
    theLog->printLine("%s %s %s %u", stringTable.get(STRINGS_CORRUPTION_FOUND),
                      name.isNull() ? "" : name.c_str(), stringTable.get(STRINGS_AT), part);
    reopenPart(start, end);
    return PartCheck::corrupted;
}

void PartialFile::reopenPart(u32 start, u32 end) {
    transferred_ = transferred_ > PARTSIZE ? transferred_ - PARTSIZE : 0;
    addGap(start, end);
    download_->progress().removeDone(start, end);
    reopened_ = true;
}

bool PartialFile::checkParts() {
    if (partCount_ < 2) return true;
    bool passed = false;
    for (u32 part = 0; part < partCount_; ++part) {
        if (partsDone_.get(static_cast<i32>(part))) continue;
        switch (checkPart(part)) {
            case PartCheck::unreadable:
                return false;
            case PartCheck::good: {
                i4_lock guard(doneLock_);
                partsDone_.set(static_cast<i32>(part), true);
                passed = true;
                break;
            }
            default:
                break;
        }
    }
    if (passed) publish();
    return true;
}

void PartialFile::publish() {
    if (sharedMeta_) return;
    auto record = std::make_unique<FileMeta>();
    record->copyFrom(&meta_);
    // A record without a path is one of a file that isn't whole.
    record->setPath(nullptr);
    sharedMeta_ = record.get();
    clientApp.addSharedFile(record.release());
}

void PartialFile::republish() {
    if (FileMeta* record = sharedMeta_) clientApp.shared.add(record);
}

PartialFile::Read PartialFile::readData(u8* buffer, u32 start, u32 end) {
    switch (status()) {
        case moved:
            return Read::moved;
        case gone:
            return Read::gone;
        case open:
            break;
    }
    if (end > fileSize_ || start > end || overlaps(start, end)) return Read::unavailable;
    i4_lock guard(fileLock_);
    if (!readFile_) readFile_ = i4_open_exact(meta_.path.c_str(), I4_FILE_READ);
    if (!readFile_) return Read::unavailable;
    readFile_->seek(start);
    try {
        readFile_->readAll(buffer, end - start);
    } catch (const i4_err&) {
        return Read::unavailable;
    }
    return Read::ok;
}

void PartialFile::closeFiles() {
    writeFile_.reset();
    i4_lock guard(fileLock_);
    if (!readFile_) return;
    status_ = moved;
    readFile_.reset();
}

void PartialFile::cancel() {
    finished_ = 1;
    status_ = gone;
    closeFiles();
    ::remove(meta_.path.c_str());
    ::remove(metaPath().c_str());
    if (FileMeta* record = sharedMeta_) clientApp.shared.remove(record);
}

PartialFile::Completion PartialFile::complete(const GiveUp& giveUp) {
    closeFiles();
    MD4Hash hash;
    std::vector<MD4Hash> parts;
    if (MD4Hash::computeFile(hash, meta_.path.c_str(), parts, giveUp) == HashOutcome::abandoned) {
        return Completion::abandoned;
    }
    finished_ = 1;
    ::remove(metaPath().c_str());
    if (hash != meta_.hash) {
        keepCorrupted();
        status_ = gone;
        return Completion::corrupted;
    }
    enterIncoming();
    status_ = moved;
    return Completion::good;
}

void PartialFile::enterIncoming() {
    i4_string path;
    partFileNamer.moveFile(meta_.path.c_str(), meta_.getName(), preferences.incomingDir().c_str(), path);
    {
        i4_lock guard(fileLock_);
        finalPath_ = path;
    }
    publish();
    i4_file_status status;
    const u32 date = i4_get_status(path.c_str(), status) ? status.last_modified : 0;
    clientApp.changeFile(sharedMeta_, [&](FileMeta& record) {
        record.setPath(path.c_str());
        record.date = date;
    });
}

void PartialFile::keepCorrupted() {
    const i4_string name = getName();
    theLog->printLine("%s: %s", stringTable.get(STRINGS_CORRUPTED_DOWNLOAD),
                      name.isNull() ? "" : name.c_str());
    if (FileMeta* record = sharedMeta_) clientApp.shared.remove(record);
    if (preferences.saveCor != 0) {
        i4_string path;
        partFileNamer.moveFile(meta_.path.c_str(), name.c_str(), preferences.tempDir().c_str(), path);
    } else {
        ::remove(meta_.path.c_str());
    }
}

i4_string PartialFile::finalPath() const {
    i4_lock guard(fileLock_);
    return finalPath_;
}

void PartialFile::saveToList(PartialList& list, i32 priority, bool paused) {
    if (failed_ || finished_ != 0) return;
    auto record = std::make_unique<FileMeta>();
    copyMeta(*record);
    record->setInt(TAG_PART_TRANS, transferred_);
    record->setText(TAG_TEMPFILENAME, tempFileName_.c_str());
    record->setInt(TAG_PRIORITY, static_cast<u32>(priority));
    record->setInt(TAG_STATE, paused ? 1 : 0);
    u32 k = 0;
    for (const Gap& gap : gaps()) {
        const u32 start = static_cast<u32>(gap.start);
        const u32 end = static_cast<u32>(gap.end);
        record->addTag(MetaTag::makeTag(META_TAG_INT, gapTagName(TAG_GAP_START, k).c_str(), &start));
        record->addTag(MetaTag::makeTag(META_TAG_INT, gapTagName(TAG_GAP_END, k).c_str(), &end));
        ++k;
    }
    list.add(record.release());
}

void PartialFile::setPartHashes(i4_file& stream) {
    if (partHashesKnown_) return;
    FileMeta offered;
    offered.readPartHashes(stream);
    if (offered.partHashes.size() != partCount_ || MD4Hash::ofParts(offered.partHashes) != meta_.hash) return;
    i4_lock guard(doneLock_);
    meta_.partHashes = std::move(offered.partHashes);
    partHashesKnown_ = true;
}

bool PartialFile::hasNeededPart(const BoolArray& parts) const {
    if (parts.size() != partsDone_.size()) return false;
    for (i32 i = 0; i < parts.size(); ++i) {
        if (parts.get(i) && !partsDone_.get(i)) return true;
    }
    return false;
}

void PartialFile::copyPartsDone(BoolArray& out) const {
    i4_lock guard(doneLock_);
    out.setSize(partsDone_.size());
    out.copyFrom(&partsDone_);
}

void PartialFile::copyMeta(FileMeta& out) const {
    i4_lock guard(doneLock_);
    out.copyFrom(&meta_);
}

i4_string PartialFile::getName() const { return meta_.getName(); }

i4_string PartialFile::metaPath() const {
    i4_string path;
    path.format("%S.met", &meta_.path);
    return path;
}
