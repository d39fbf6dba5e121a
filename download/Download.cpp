#include "download/Download.h"

#include <algorithm>
#include <cassert>
#include <cmath>

#include "download/DLS_Downloading.h"
#include "download/DLS_States.h"

void DownloadLock::lock() {
    i4_rank_push(LockRank::download);
    semaphore_.wait(0);
    holder_ = std::this_thread::get_id();
}

// A display's short try is outside of the order of locks: it gives up rather than waits.
bool DownloadLock::tryLock(u32 ms) {
    if (!semaphore_.wait(ms)) return false;
    i4_rank_push_tried(LockRank::download);
    holder_ = std::this_thread::get_id();
    return true;
}

void DownloadLock::assertHeld() const { assert(holder_.load() == std::this_thread::get_id()); }

void DownloadLock::unlock() {
    holder_ = std::thread::id();
    semaphore_.signal();
    i4_rank_pop(LockRank::download);
}

Download::Download(const DownloadNeeds& outside, DownloadOwner& line)
    : DownloadBody(outside, line), state_(makeState(Stage::queued)) {}

Download::~Download() {
    completer_.stop();
    // The sources take their parts out of `progress_`, which is still there.
    const i4_guard guard(lock_);
    state_.reset();
}

bool Download::create(FileMeta& meta) {
    const i4_guard guard(lock_);
    meta.removeTag(TAG_AVAILABILITY);
    partial_ = makeRef<PartialFile>(needs, progress_);
    if (!partial_->create(meta)) {
        needs.core.log.printLine("%s", needs.core.strings.get(STRINGS_COULDNT_CREATE_TEMP_FILE));
        return false;
    }
    setHash(partial_->getHash());
    progress_.setup(*partial_, needs.core.host.random);
    accounts.setSize(partial_->fileSize());
    needs.ui.downloadAdded(this);
    return true;
}

bool Download::load(const FileMeta& record) {
    const i4_guard guard(lock_);
    partial_ = makeRef<PartialFile>(needs, progress_);
    i32 recorded = 1;
    const PartialFile::Load result = partial_->load(record, recorded);
    priority = recorded;
    switch (result) {
        case PartialFile::Load::failed:
            become(Stage::errorLoading);
            break;
        case PartialFile::Load::running:
            become(Stage::hashing);
            break;
        case PartialFile::Load::paused:
            become(Stage::pausedHashing);
            break;
    }
    show();
    return result != PartialFile::Load::failed;
}

void Download::verify(const GiveUp& giveUp) {
    switch (partial_->checkParts(giveUp)) {
        case PartialFile::Check::done:
            return hashingEnded();
        case PartialFile::Check::unreadable:
            return hashingFailed();
        case PartialFile::Check::abandoned:
            return;
    }
}

void Download::hashingEnded() {
    const i4_guard guard(lock_);
    setHash(partial_->getHash());
    progress_.setup(*partial_, needs.core.host.random);
    accounts.setSize(partial_->fileSize());
    state_->hashDone();
}

void Download::hashingFailed() {
    const i4_guard guard(lock_);
    become(Stage::errorHashing);
    leavePool();
}

i32 Download::getStatus() {
    if (!lock_.tryLock(1)) return DL_STATUS_UNREADABLE;
    const i32 status = state_->status;
    lock_.unlock();
    return status;
}

f32 Download::getAvailability() {
    const i64 size = partial_ ? partial_->fileSize() : 0;
    if (size == 0) return 1.0F;
    i64 without = 0;
    progress_.forEach([&](const GapCounter& run) {
        if (run.count == 0) without += run.end - run.start;
    });
    if (without == 0) return 1.0F;
    // A byte of four billion doesn't show in this type, but it is missing.
    return std::min(static_cast<f32>(size - without) / static_cast<f32>(size), std::nextafter(1.0F, 0.0F));
}

i32 Download::availabilityPercent() { return static_cast<i32>(getAvailability() * 100.0F); }

i4_string Download::getName() const { return partial_ ? partial_->getName() : i4_string(); }

std::unique_ptr<DownloadState> Download::makeState(Stage stage) {
    switch (stage) {
        case Stage::queued:
            return std::make_unique<DLS_Queued>(*this);
        case Stage::downloading:
            return std::make_unique<DLS_Downloading>(*this);
        case Stage::paused:
            return std::make_unique<DLS_Paused>(*this);
        case Stage::diskFull:
            return std::make_unique<DLS_DiskFull>(*this);
        case Stage::noSources:
            return std::make_unique<DLS_NoSources>(*this);
        case Stage::hashing:
            return std::make_unique<DLS_Hashing>(*this);
        case Stage::pausedHashing:
            return std::make_unique<DLS_PausedHashing>(*this);
        case Stage::errorLoading:
            return std::make_unique<DLS_Done>(*this, DL_STATUS_ERROR_LOADING);
        case Stage::completing:
            return std::make_unique<DLS_Done>(*this, DL_STATUS_COMPLETING);
        case Stage::complete:
            return std::make_unique<DLS_Done>(*this, DL_STATUS_COMPLETE);
        case Stage::corrupted:
            return std::make_unique<DLS_Done>(*this, DL_STATUS_CORRUPTED);
        case Stage::errorHashing:
            return std::make_unique<DLS_Done>(*this, DL_STATUS_ERROR_HASHING);
    }
    return nullptr;
}

DownloadState& Download::become(Stage stage) {
    lock_.assertHeld();
    state_.reset();
    state_ = makeState(stage);
    if (stage != Stage::downloading) speed = 0;
    paused_ = state_->isPaused() ? 1 : 0;
    wantsTicks_ = state_->wantsTicks() ? 1 : 0;
    if (wantsTicks_ != 0) owner.ticksWanted();
    return *state_;
}

void Download::leavePool() { needs.core.messages.post(MESSAGE_DOWNLOAD_GONE, Ref<Download>(this)); }
void Download::show() { needs.ui.downloadAdded(this); }
void Download::startCompleter() { completer_.start(); }

void Download::completed(PartialFile::Completion how) {
    // The program ends: the file is saved as it is, and completed at the next start.
    if (how == PartialFile::Completion::abandoned) return;
    {
        const i4_guard guard(lock_);
        become(how == PartialFile::Completion::good ? Stage::complete : Stage::corrupted);
    }
    leavePool();
}

MD4Hash Download::hash() const {
    i4_lock guard(hashLock_);
    return hash_;
}

void Download::setHash(const MD4Hash& hash) {
    i4_lock guard(hashLock_);
    hash_ = hash;
}

std::unique_ptr<FileMeta> Download::stop() {
    completer_.stop();
    const i4_guard guard(lock_);
    state_->stop();
    std::unique_ptr<FileMeta> record = partial_->makeRecord(priority, isPaused());
    partial_->closeFiles();
    return record;
}

void Download::gotHashSet(i4_file& stream) {
    const i4_guard guard(lock_);
    if (partial_->setPartHashes(stream)) state_->hashSetKnown();
}

bool Download::check(u32 part) {
    std::optional<PartToCheck> check = partial_->beginCheck(part);
    if (!check) return true;  // complete() tells what is wrong with the file
    check->tell = [self = Ref<Download>(this)](const CheckedPart& checked) { self->partChecked(checked); };
    check->givers = accounts.giversOf(part);
    check->evidence = accounts.evidenceOf(part);
    if (needs.verifier.check(std::move(*check))) return true;
    partial_->endCheck({part, CheckedPart::Outcome::abandoned, {}});
    return false;
}

// Who gave wrong bytes, by the outcome. They are said and banned.
std::vector<u32> Download::judge(const CheckedPart& checked) {
    std::vector<u32> liars;
    if (checked.outcome == CheckedPart::Outcome::passed)
        liars = accounts.passed(checked.part, checked.pieces);
    if (checked.outcome == CheckedPart::Outcome::failed)
        liars = accounts.failed(checked.part, partial_->partLength(checked.part), checked.pieces);
    for (const u32 liar : liars) {
        const SourceAccount& account = accounts[liar];
        const i4_string name = getName();
        needs.core.log.printLine("%s gave wrong data for %s and is no source any more.",
                                 orEmpty(account.name), orEmpty(name));
        owner.ban(account);
    }
    return liars;
}

void Download::partChecked(const CheckedPart& checked) {
    const i4_guard guard(lock_);
    if (partial_->isFinished()) return;
    const std::vector<u32> liars = judge(checked);
    const bool isWhole = partial_->getPartCount() == 1;
    if (isWhole && checked.outcome == CheckedPart::Outcome::failed && !state_->hasOthersToAsk()) {
        partial_->acceptAsItIs(checked.part);
    } else {
        partial_->endCheck(checked);
    }
    state_->partChecked(checked, liars);
}

// What follows only takes the lock and forwards to the state.

u32 Download::bytesToFill() {
    const i4_guard guard(lock_);
    return state_->bytesToFill();
}

u32 Download::diskNeeded() {
    const i4_guard guard(lock_);
    return state_->diskNeeded();
}

void Download::tick(i32 elapsedMs) {
    const i4_guard guard(lock_);
    // One that was cancelled has nothing to do any more until it leaves the pool.
    if (!partial_->isFinished()) state_->tick(elapsedMs);
}

void Download::pause() {
    const i4_guard guard(lock_);
    state_->pause();
}

void Download::resume() {
    const i4_guard guard(lock_);
    state_->resume();
}

void Download::cancel() {
    const i4_guard guard(lock_);
    state_->cancel();
}

void Download::diskFull() {
    const i4_guard guard(lock_);
    state_->diskFull();
}

u32 Download::diskFreed() {
    const i4_guard guard(lock_);
    return state_->diskFreed();
}

void Download::idChanged() {
    const i4_guard guard(lock_);
    state_->idChanged();
}

void Download::addSource(const UserMeta& user) {
    const i4_guard guard(lock_);
    state_->addSource(user);
}

bool Download::on(Peer& peer, const PeerEvent& event) {
    const i4_guard guard(lock_);
    return state_->on(peer, event);
}

void Download::on(const ReachEvent& event) {
    const i4_guard guard(lock_);
    state_->on(event);
}

Chunk Download::takeOver(FileSource& taker, f32 itsSpeed) {
    if (!taker.parts()) return {};
    for (FileSource* source : talkers) {
        if (source == &taker) continue;
        const Chunk chunk = source->state().letGo(*taker.parts(), itsSpeed);
        if (chunk.isEmpty()) continue;
        progress_.handOver(chunk);
        return chunk;
    }
    return {};
}

bool Download::hasUnsuspected() const {
    return std::any_of(talkers.begin(), talkers.end(),
                       [](FileSource* source) { return source->state().usesSlot() && !source->isSuspect(); });
}

void Download::leaveParts(u32 account) {
    for (const u32 part : progress_.heldBy(account)) {
        if (partial_->isHere(part)) continue;
        accounts.forget(part);
        partial_->reopenPart(part);
    }
}
