#include "download/PartialFile.h"

#include <algorithm>
#include <limits>
#include <map>
#include <utility>
#include <vector>

#include "download/Collection.h"
#include "download/DLProgress.h"
#include "download/DownloadNeeds.h"
#include "download/PartFileNamer.h"
#include "i4min/memory/error.h"
#include "i4min/memory/malloc4.h"

namespace {

// A source that sends single bytes far from each other may not fill the memory with gaps.
constexpr std::size_t mostGaps = 10'000;

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
    for (const auto& tag : record.getTags()) {
        u32 k = 0;
        const auto* number = std::get_if<u32>(&tag->getValue());
        if (number && isGapTag(tag->name(), TAG_GAP_START, k)) {
            starts.try_emplace(k, *number);
        } else if (number && isGapTag(tag->name(), TAG_GAP_END, k)) {
            ends.try_emplace(k, *number);
        } else {
            rest.addTag(tag->clone());
        }
    }
    std::vector<Gap> gaps;
    for (u32 k = 0; starts.contains(k) && ends.contains(k); ++k) gaps.push_back({starts[k], ends[k]});
    return gaps;
}

// What a record tells of the download and not of the file. A stranger's record brings in none of it.
constexpr TagIndex downloadTags[] = {TAG_PART_TRANS, TAG_TEMPFILENAME, TAG_PRIORITY, TAG_STATE};

// A data file lies in the temp directory itself, and is nobody's meta file.
bool isDataFileName(const i4_string& name) {
    return !name.isNull() && safeFileName(name.c_str()) == name && !name.view().ends_with(".met");
}

}  // namespace

PartialFile::PartialFile(const DownloadNeeds& needs, DLProgress& progress)
    : needs_(needs), progress_(progress), writeFile_(needs.core.log) {}

PartialFile::~PartialFile() { closeFiles(); }

i4_string PartialFile::pathInTemp(const i4_string& name) const {
    const i4_string directory = needs_.core.preferences.tempDir();
    i4_string path;
    path.format("%S/%S", &directory, &name);
    return path;
}

// Part hashes that don't belong to the file would only fail parts that are good: they are asked for anew.
void PartialFile::finishSetup(const FileMeta& tags, const FileMeta& record) {
    meta_.copyFrom(&tags);
    meta_.hash = record.hash;
    meta_.setPath(pathInTemp(tempFileName_).c_str());
    fileSize_ = meta_.getSize();
    partCount_ = fileSize_ / PARTSIZE + 1;
    partsDone_.setSize(static_cast<i32>(partCount_));
    isWithVerifier_.assign(partCount_, false);
    partHashesKnown_ = partCount_ < 2;
    if (isHashSet(record.partHashes)) meta_.partHashes = record.partHashes;
}

bool PartialFile::isHashSet(const std::vector<MD4Hash>& hashes) const {
    return hashes.size() == partCount_ && MD4Hash::ofParts(hashes) == meta_.hash;
}

bool PartialFile::openForWriting(u32 flags) {
    return writeFile_.open(needs_.core.host.disk, meta_.path, I4_FILE_READ | I4_FILE_WRITE | flags);
}

bool PartialFile::create(const FileMeta& meta) {
    needs_.namer.makeTempName(tempFileName_);
    FileMeta tags;
    takeGaps(meta, tags);
    tags.removeTags(downloadTags);
    finishSetup(tags, meta);
    addGap(0, fileSize_);
    return openForWriting(I4_FILE_TRUNCATE);
}

const char* PartialFile::dataFileOf(const FileMeta& record) {
    const char* name = record.getText(TAG_TEMPFILENAME);
    return name ? name : record.getName();
}

PartialFile::Load PartialFile::load(const FileMeta& record, i32& priority) {
    failed_ = true;
    FileMeta rest;
    const std::vector<Gap> gaps = takeGaps(record, rest);
    tempFileName_ = dataFileOf(rest);
    priority = std::clamp(static_cast<i32>(rest.getInt(TAG_PRIORITY)), 0, 2);
    const bool paused = rest.getInt(TAG_STATE) != 0;
    transferred_ = rest.getInt(TAG_PART_TRANS);
    rest.removeTags(downloadTags);
    finishSetup(rest, record);
    for (const Gap& gap : gaps) addGap(gap.start, std::min<i64>(gap.end, fileSize_));
    i4_file_status status;
    if (!isDataFileName(tempFileName_) || !needs_.core.host.disk.status(meta_.path.c_str(), status)) {
        needs_.core.log.printLine("%s not found.", meta_.path.c_str());
        return Load::failed;
    }
    if (status.kind != i4_file_kind::regular || !openForWriting(0)) {
        needs_.core.log.printLine("%s Couldn't be opened.", meta_.path.c_str());
        return Load::failed;
    }
    fileEnd_ = static_cast<u32>(std::min<u64>(status.size, std::numeric_limits<u32>::max()));
    reopenLostEnd();
    failed_ = false;
    return paused ? Load::paused : Load::running;
}

// What lies behind the end of the data file can't be here, whatever the record says.
void PartialFile::reopenLostEnd() {
    if (fileEnd_ >= fileSize_) return;
    GapList here;
    here.assign(*this);
    here.invert(fileSize_);
    if (!here.overlaps(fileEnd_, fileSize_)) return;
    needs_.core.log.printLine("%s is shorter than it was; what is missing is fetched again.",
                              meta_.path.c_str());
    addGap(fileEnd_, fileSize_);
}

std::vector<Gap> PartialFile::writeData(i4_ram_file_class& packet, u32 start, u32 end) {
    if (end <= start || end > fileSize_ || !writeFile_.isOpen() ||
        end - start > packet.bytesLeft().value_or(0) || (count() >= mostGaps && isWithin(start, end))) {
        needs_.core.log.printVerbose("Crazy packet\n");
        return {};
    }
    std::vector<Gap> written = missing(start, end);
    const u8* const bytes = packet.here();
    const bool large = packet.capacity() > DataFile::blockSize;
    const std::shared_ptr<const u8> block(packet.release(),
                                          [](const u8* taken) { i4_free(const_cast<u8*>(taken)); });
    for (const Gap& gap : written) {
        const u32 length = static_cast<u32>(gap.end - gap.start);
        writeFile_.write(static_cast<u64>(gap.start), {block, bytes + (gap.start - start)}, length);
        removeGap(gap.start, gap.end);
        progress_.addDone(gap.start, gap.end);
        transferred_.add(length);
        fileEnd_ = std::max(fileEnd_.get(), static_cast<u32>(gap.end));
    }
    // What waits may hold no more memory than a few small blocks.
    if (large) writeFile_.flush();
    return written;
}

int PartialFile::reopenLost() {
    int error = 0;
    for (const DataFile::Loss& loss : writeFile_.takeLosses()) {
        const u32 bytes = static_cast<u32>(loss.end - loss.start);
        transferred_ = transferred_ - std::min(transferred_.get(), bytes);
        addGap(static_cast<i64>(loss.start), static_cast<i64>(loss.end));
        progress_.removeDone(static_cast<i64>(loss.start), static_cast<i64>(loss.end));
        error = loss.error;
    }
    return error;
}

u32 PartialFile::partLength(u32 part) const {
    return static_cast<u32>(std::min<u64>(PARTSIZE, fileSize_ - u64{part} * PARTSIZE));
}

// A file of one part has its part's hash. The hashes that a collection stores aren't those of its own bytes:
// complete() decides.
const MD4Hash* PartialFile::hashOfPart(u32 part) const {
    if (Collection::isOne(meta_)) return nullptr;
    if (partCount_ == 1) return &meta_.hash;
    return part < meta_.partHashes.size() ? &meta_.partHashes[part] : nullptr;
}

bool PartialFile::mayCheck(u32 part) const {
    if (isVerified(part) || isWithVerifier_[part] || isAccepted_ || !writeFile_.isOpen() || !hashOfPart(part))
        return false;
    return isHere(part);
}

bool PartialFile::isHere(u32 part) const {
    const i64 start = i64{part} * PARTSIZE;
    return !overlaps(start, start + partLength(part));
}

std::optional<PartToCheck> PartialFile::beginCheck(u32 part) {
    writeFile_.flush();
    PartToCheck check;
    check.part = part;
    check.start = part * PARTSIZE;
    check.end = check.start + partLength(part);
    check.expected = *hashOfPart(part);
    check.file = needs_.core.host.disk.open(meta_.path.c_str(), I4_FILE_READ);
    if (!check.file) return std::nullopt;
    isWithVerifier_[part] = true;
    ++checking_;
    return check;
}

void PartialFile::endCheck(const CheckedPart& checked) {
    isWithVerifier_[checked.part] = false;
    --checking_;
    switch (checked.outcome) {
        case CheckedPart::Outcome::passed:
            markVerified(checked.part);
            progress_.partVerified(checked.part);
            if (partCount_ > 1) publish();
            break;
        case CheckedPart::Outcome::failed:
            sayCorrupted(checked.part);
            reopenPart(checked.part);
            break;
        case CheckedPart::Outcome::unreadable:
            sayUnreadable();
            reopenPart(checked.part);
            break;
        case CheckedPart::Outcome::abandoned:
            break;
    }
}

void PartialFile::acceptAsItIs(u32 part) {
    isWithVerifier_[part] = false;
    --checking_;
    isAccepted_ = true;
}

void PartialFile::markVerified(u32 part) {
    i4_lock guard(doneLock_);
    partsDone_.set(static_cast<i32>(part), true);
}

void PartialFile::sayUnreadable() const {
    needs_.core.log.printLine("ERROR file couldn't be hashed: %s ", orEmpty(getName().c_str()));
    needs_.core.log.printLine("Please close the tarnwick and run scandisk.");
}

void PartialFile::sayCorrupted(u32 part) const {
    needs_.core.log.printLine("%s %s %s %u", needs_.core.strings.get(STRINGS_CORRUPTION_FOUND),
                              orEmpty(getName().c_str()), needs_.core.strings.get(STRINGS_AT), part);
}

void PartialFile::reopenPart(u32 part) {
    const i64 start = i64{part} * PARTSIZE;
    transferred_ = transferred_ > PARTSIZE ? transferred_ - PARTSIZE : 0;
    addGap(start, start + partLength(part));
    progress_.partFailed(part);
}

// Of a file that was loaded, whose progress is set up afterwards.
PartialFile::PartCheck PartialFile::checkPart(u32 part) {
    const u32 start = part * PARTSIZE;
    const u32 end = start + partLength(part);
    if (overlaps(start, end)) return PartCheck::missing;
    const MD4Hash* const expected = hashOfPart(part);
    if (!expected || !writeFile_.isOpen()) return PartCheck::unknown;
    MD4Hash hash;
    const bool readable = MD4Hash::compute(hash, writeFile_.stream(), start, end);
    if (readable && hash == *expected) return PartCheck::good;
    readable ? sayCorrupted(part) : sayUnreadable();
    transferred_ = transferred_ > PARTSIZE ? transferred_ - PARTSIZE : 0;
    addGap(start, end);
    return readable ? PartCheck::corrupted : PartCheck::unreadable;
}

PartialFile::Check PartialFile::checkParts(const GiveUp& giveUp) {
    if (partCount_ < 2) return Check::done;
    bool passed = false;
    for (u32 part = 0; part < partCount_; ++part) {
        if (isVerified(part)) continue;
        if (giveUp && giveUp()) return Check::abandoned;
        const PartCheck result = checkPart(part);
        if (result == PartCheck::unreadable) return Check::unreadable;
        if (result != PartCheck::good) continue;
        markVerified(part);
        passed = true;
    }
    if (passed) publish();
    return Check::done;
}

void PartialFile::publish() {
    if (sharedMeta_) return;
    auto record = std::make_unique<FileMeta>();
    copyMeta(*record);
    // A record without a path is one of a file that isn't whole.
    record->setPath(nullptr);
    sharedMeta_ = record.get();
    needs_.library.addSharedFile(record.release());
}

void PartialFile::republish() {
    if (status() == gone) return;
    if (FileMeta* record = sharedMeta_) needs_.library.shared().add(record);
}

PartialFile::Read PartialFile::readData(u8* buffer, u32 start, u32 end) {
    switch (status()) {
        case moved:
            return Read::moved;
        case gone:
            return Read::gone;
        case incomplete:
            break;
    }
    if (end > fileSize_ || start > end || overlaps(start, end)) return Read::unavailable;
    {
        const i4_lock guard(doneLock_);
        for (u64 at = start; at < end; at += PARTSIZE - at % PARTSIZE) {
            if (!isVerified(static_cast<u32>(at / PARTSIZE))) return Read::unavailable;
        }
    }
    i4_lock guard(fileLock_);
    if (!readFile_) readFile_ = needs_.core.host.disk.open(meta_.path.c_str(), I4_FILE_READ);
    if (!readFile_) return Read::unavailable;
    readFile_->seek(start);
    try {
        readFile_->readAll({buffer, end - start});
    } catch (const i4_err&) {
        return Read::unavailable;
    }
    return Read::ok;
}

void PartialFile::closeFiles() {
    writeFile_.close();
    i4_lock guard(fileLock_);
    if (!readFile_) return;
    if (status() != gone) status_ = moved;
    readFile_.reset();
}

void PartialFile::endUploads(Status status) {
    i4_lock guard(fileLock_);
    status_ = status;
    readFile_.reset();
}

void PartialFile::cancel() {
    finished_ = true;
    status_ = gone;
    closeFiles();
    needs_.core.host.disk.remove(meta_.path.c_str());
    needs_.core.host.disk.remove(metaPath().c_str());
    if (FileMeta* record = sharedMeta_) needs_.library.shared().remove(record);
}

void PartialFile::dropStaleMeta() const {
    if (finished_) needs_.core.host.disk.remove(metaPath().c_str());
}

// The meta file goes last: a crash before leaves a download that completes again. Uploads read on meanwhile.
PartialFile::Completion PartialFile::complete(const GiveUp& giveUp) {
    writeFile_.close();
    MD4Hash hash;
    std::vector<MD4Hash> parts;
    if (MD4Hash::computeFile(hash, needs_.core.host.disk, meta_.path.c_str(), parts, giveUp) ==
        HashOutcome::abandoned) {
        return Completion::abandoned;
    }
    const bool good = hash == meta_.hash || Collection::stores(needs_.core, meta_);
    if (!good) {
        keepCorrupted();
        endUploads(gone);
    } else if (!enterIncoming(parts, giveUp)) {
        return Completion::abandoned;
    }
    finished_ = true;
    needs_.core.host.disk.remove(metaPath().c_str());
    return good ? Completion::good : Completion::corrupted;
}

bool PartialFile::enterIncoming(const std::vector<MD4Hash>& parts, const GiveUp& giveUp) {
    i4_string path;
    if (!needs_.namer.moveFile(meta_.path.c_str(), meta_.getName(),
                               needs_.core.preferences.incomingDir().c_str(), path, giveUp)) {
        return false;
    }
    {
        i4_lock guard(fileLock_);
        finalPath_ = path;
    }
    endUploads(moved);
    publish();
    i4_file_status status;
    const u32 date = needs_.core.host.disk.status(path.c_str(), status) ? status.last_modified : 0;
    needs_.library.changeFile(sharedMeta_, [&](FileMeta& record) {
        record.setPath(path.c_str());
        record.date = date;
        record.partHashes = parts;
    });
    return true;
}

void PartialFile::keepCorrupted() {
    const i4_string name = getName();
    i4_string path;
    PartFileNamer::Moved outcome = PartFileNamer::Moved::done;
    if (FileMeta* record = sharedMeta_) needs_.library.shared().remove(record);
    if (needs_.core.preferences.saveCor != 0) {
        // What stays in the temp directory must not be taken for a meta file at the next start.
        i4_string kept = name;
        if (!kept.isNull() && kept.view().ends_with(".met")) kept.format("%S_", &name);
        outcome = needs_.namer.tryMove(meta_.path.c_str(), kept.c_str(),
                                       needs_.core.preferences.tempDir().c_str(), path);
    } else {
        needs_.core.host.disk.remove(meta_.path.c_str());
    }
    // Said when the file is there: who reads it looks for it.
    needs_.core.log.printLine("%s: %s", needs_.core.strings.get(STRINGS_CORRUPTED_DOWNLOAD),
                              name.isNull() ? "" : name.c_str());
    if (outcome == PartFileNamer::Moved::failed) needs_.namer.sayNotMoved(meta_.path.c_str(), path);
}

i4_string PartialFile::finalPath() const {
    i4_lock guard(fileLock_);
    return finalPath_;
}

std::unique_ptr<FileMeta> PartialFile::makeRecord(i32 priority, bool paused) {
    if (failed_ || finished_) return nullptr;
    auto record = std::make_unique<FileMeta>();
    copyMeta(*record);
    record->setInt(TAG_PART_TRANS, transferred_);
    record->setText(TAG_TEMPFILENAME, tempFileName_.c_str());
    record->setInt(TAG_PRIORITY, static_cast<u32>(priority));
    record->setInt(TAG_STATE, paused ? 1 : 0);
    u32 k = 0;
    for (const Gap& gap : gaps()) {
        const auto start = static_cast<u32>(gap.start);
        const auto end = static_cast<u32>(gap.end);
        record->addTag(MetaTag::makeTag(gapTagName(TAG_GAP_START, k).c_str(), start));
        record->addTag(MetaTag::makeTag(gapTagName(TAG_GAP_END, k).c_str(), end));
        ++k;
    }
    // After the gaps were taken: what they tell to be here is on the disk when the record gets there.
    writeFile_.flush();
    return record;
}

bool PartialFile::setPartHashes(i4_file& stream) {
    if (partHashesKnown_) return false;
    FileMeta offered;
    offered.readPartHashes(stream);
    if (!isHashSet(offered.partHashes)) return false;
    i4_lock guard(doneLock_);
    meta_.partHashes = std::move(offered.partHashes);
    partHashesKnown_ = true;
    return true;
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
