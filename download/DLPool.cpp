#include "download/DLPool.h"

#include <algorithm>
#include <vector>

#include "download/PartialList.h"
#include "peer/Peer.h"
#include "peer/RemoteQueueList.h"

namespace {

constexpr i64 tickEvery = 100;          // ms
constexpr i32 saveEvery = 300'000;      // ms
constexpr i32 checkDiskEvery = 60'000;  // ms
constexpr i32 sourcePacing = 500;       // ms
constexpr i64 idleLimit = 120'000;      // ms after which a silent Peer is closed
constexpr i64 banTime = 4 * 3'600'000;  // ms
constexpr std::size_t mostBans = 1000;
constexpr f32 leastThreshold = 0.5F;  // KB/s

}  // namespace

DLPool::DLPool(const DownloadNeeds& needs)
    : Thread(needs.core.host.scheduler), needs_(needs), clock_(needs.core.host.clock) {}

void DLPool::sayAbout(u32 number, const FileMeta& file) {
    needs_.core.log.printLine("%s %s.", needs_.core.strings.get(number), orEmpty(file.getName()));
}

DLPool::~DLPool() {
    stop();
    while (Download* download = downloads_.removeAt(0)) download->release();
}

void DLPool::start() {
    lastTick_ = clock_.now();
    measureFreeSpace();
    Thread::start();
}

template <class Operation>
void DLPool::forEach(Operation operation) {
    const i4_guard guard(downloads_);
    for (LL<Download>::Cursor c; Download* download = downloads_.next(c);) operation(*download);
}

template <class Operation>
bool DLPool::byPriority(Operation operation) {
    for (i32 priority = 2; priority >= 0; --priority) {
        for (LL<Download>::Cursor c; Download* download = downloads_.next(c);) {
            if (download->priority == priority && operation(*download)) return true;
        }
    }
    return false;
}

Rest DLPool::run() {
    const i32 elapsed = msBetween(lastTick_, clock_.now());
    lastTick_ = later(lastTick_, elapsed);
    tick(elapsed);
    return untilDue();
}

// A download that has something to do ticks; otherwise the disk, the saves and idle peers have their times.
Rest DLPool::untilDue() {
    i64 due = Rest::unlimited;
    ticks_ = true;
    {
        const i4_guard guard(downloads_);
        for (LL<Download>::Cursor c; Download* download = downloads_.next(c);) {
            if (download->wantsTicks()) return Rest::atMost(tickEvery);
            due = std::min(diskTimer_, saveTimer_);
        }
    }
    ticks_ = false;
    const i4_guard guard(needs_.peers);
    for (LL<Peer>::Cursor c; Peer* peer = needs_.peers.next(c);) {
        if (peer->isClosing()) continue;
        due = std::min(due, std::max<i64>(idleLimit + 1 - peer->idleMs(), 0));
    }
    return due == Rest::unlimited ? Rest::untilWoken() : Rest::atMost(due);
}

void DLPool::tick(i32 elapsed) {
    checkOwnThread();
    sinceStart_ = std::min(sinceStart_ + elapsed, sourcePacing);
    updateCanStart();
    // After a rest in which no download had anything to do, their time starts anew.
    const f32 total = tickDownloads(ticks_ ? elapsed : 0);
    needs_.core.preferences.curDownSpeed = total;
    if (total > needs_.core.preferences.maxDownSpeed) needs_.core.preferences.maxDownSpeed = total;
    closeIdlePeers();
    diskTimer_ -= elapsed;
    if (diskTimer_ < 1) {
        diskTimer_ = checkDiskEvery;
        measureFreeSpace();
        checkDisk();
    }
    saveTimer_ -= elapsed;
    if (saveTimer_ < 1) {
        saveTimer_ = saveEvery;
        saveDownloads();
    }
}

f32 DLPool::tickDownloads(i32 elapsedMs) {
    f32 total = 0;
    const i4_guard guard(downloads_);
    byPriority([&](Download& download) {
        download.tick(elapsedMs);
        total += download.speed;
        return false;
    });
    return total;
}

void DLPool::closeIdlePeers() {
    const i4_guard guard(needs_.peers);
    for (LL<Peer>::Cursor c; Peer* peer = needs_.peers.next(c);) {
        if (peer->idleMs() > idleLimit) peer->close();
    }
}

// Whether the line has room for a further source: with a second transfer under way, only while a tenth of it
// is idle.
void DLPool::updateCanStart() {
    const f32 limit =
        needs_.core.preferences.userMaxDownF != 0
            ? needs_.core.preferences.userMaxDownF.get()
            : std::max(needs_.core.preferences.maxDownSpeed.get(), needs_.core.preferences.lineDown.get());
    const f32 threshold = std::max(limit / 10, leastThreshold);
    const bool room = transferCount_ <= 1 || limit - needs_.core.preferences.curDownSpeed > threshold;
    canStart_ = room && sinceStart_ >= sourcePacing ? 1 : 0;
}

void DLPool::sourceStarted() {
    sinceStart_ = 0;
    canStart_ = 0;
}

void DLPool::saveDownloads() {
    needs_.core.log.printVerbose("Saving downloads.\n");
    PartialList partials(needs_.core);
    std::vector<Ref<PartialFile>> saved;
    forEach([&](Download& download) {
        saved.push_back(download.partialRef());
        if (auto record = saved.back()->makeRecord(download.priority, download.isPaused())) {
            partials.add(record.release());
        }
    });
    partials.saveToDir(needs_.core.preferences.tempDir().c_str());
    // A download that ended while its record was on its way to the disk must not come back at the next start.
    for (const Ref<PartialFile>& partial : saved) partial->dropStaleMeta();
}

void DLPool::measureFreeSpace() {
    Disk& disk = needs_.core.host.disk;
    freeSpace_ = std::min(disk.freeSpace(needs_.core.preferences.tempDir().c_str()),
                          disk.freeSpace(needs_.core.preferences.incomingDir().c_str()));
}

void DLPool::add(const FileMeta& meta) {
    if (findAny(meta.hash)) return sayAbout(STRINGS_ALREADY_DOWNLOADING, meta);
    if (needs_.library.shared().find(meta.hash)) return sayAbout(STRINGS_ALREADY_HAVE, meta);
    needs_.core.log.printLine("%s: %s", needs_.core.strings.get(STRINGS_DOWNLOADING),
                              orEmpty(meta.getName()));
    FileMeta record;
    record.copyFrom(&meta);
    Ref<Download> download = makeRef<Download>(needs_, *this);
    measureFreeSpace();
    if (download->create(record)) enter(std::move(download));
    checkDisk();
}

Ref<Download> DLPool::loadDownload(const FileMeta& record) {
    if (findAny(record.hash) || isDataFileInUse(record)) {
        sayAbout(STRINGS_ALREADY_DOWNLOADING, record);
        return {};
    }
    Ref<Download> download = makeRef<Download>(needs_, *this);
    const bool wantsVerifying = download->load(record);
    enter(download);
    return wantsVerifying ? download : Ref<Download>();
}

void DLPool::enter(Ref<Download> download) {
    const PartialFile& partial = download->partial();
    const i4_guard guard(downloads_);
    byRecord_.emplace(partial.getHash(), download.get());
    dataFiles_.emplace(partial.tempFileName().view());
    downloads_.addUnsafe(download.detach());
    wake();
}

Ref<Download> DLPool::takeOut(Download* download) {
    if (!downloads_.removeUnsafe(download)) return {};
    const PartialFile& partial = download->partial();
    byRecord_.erase(partial.getHash());
    dataFiles_.erase(std::string(partial.tempFileName().view()));
    return Ref<Download>::adopt(download);
}

Ref<Download> DLPool::find(const MD4Hash& hash) {
    if (hash.isZero()) return {};  // that of every download which is still being verified
    Ref<Download> download = findAny(hash);
    return download && download->hash() == hash ? download : Ref<Download>();
}

Ref<Download> DLPool::findAny(const MD4Hash& hash) {
    const i4_guard guard(downloads_);
    const auto found = byRecord_.find(hash);
    return found == byRecord_.end() ? Ref<Download>() : Ref<Download>(found->second);
}

// Two downloads on one data file would spoil each other's bytes.
bool DLPool::isDataFileInUse(const FileMeta& record) {
    const char* name = PartialFile::dataFileOf(record);
    const i4_guard guard(downloads_);
    return name && dataFiles_.contains(name);
}

void DLPool::remove(const Ref<Download>& download) {
    {
        const i4_guard guard(downloads_);
        if (!takeOut(download.get())) return;  // cancelled twice
    }
    needs_.ui.downloadRemoved(download.get());
    needs_.core.messages.post(MESSAGE_CHECK_DISK);
}

void DLPool::stopAll(PartialList& saved) {
    for (;;) {
        Ref<Download> download;
        {
            const i4_guard guard(downloads_);
            download = takeOut(downloads_.firstUnsafe());
        }
        if (!download) return;
        if (auto record = download->stop()) saved.add(record.release());
    }
}

void DLPool::republish() {
    forEach([](Download& download) { download.partial().republish(); });
}

u64 DLPool::checkDisk() { return fitInto(freeSpace_); }

u64 DLPool::fitInto(u64 bytes) {
    u64 reserved = 0;
    const i4_guard guard(downloads_);
    byPriority([&](Download& download) {
        if (reserved + download.bytesToFill() <= bytes) {
            reserved += download.diskNeeded();
            reserved += download.diskFreed();
        } else {
            download.diskFull();
        }
        return false;
    });
    return reserved;
}

void DLPool::on(const MD4Hash& file, Peer& peer, const PeerEvent& event) {
    if (const Ref<Download> download = find(file)) download->on(peer, event);
}

void DLPool::on(Peer& peer, const PeerEvent& event) {
    if (std::holds_alternative<PeerConnected>(event)) wake();  // it may become idle
    const bool isForOne = std::holds_alternative<SlotEnded>(event);
    const i4_guard guard(downloads_);
    for (LL<Download>::Cursor c; Download* download = downloads_.next(c);) {
        if (download->on(peer, event) && isForOne) return;
    }
}

void DLPool::on(const ReachEvent& event) {
    forEach([&](Download& download) { download.on(event); });
}

// A slot that is in use already may be offered once more: the message that one download has left it crosses
// with the peer's next grant. Giving it back would end the transfer.
void DLPool::slotGranted(Peer& peer) {
    bool taken = false;
    {
        const i4_guard guard(downloads_);
        taken = byPriority([&](Download& download) { return download.on(peer, SlotGranted{}); });
    }
    if (!taken) needs_.queues.release(peer);
}

void DLPool::ban(const SourceAccount& account) {
    const i4_lock guard(banLock_);
    if (bans_.size() == mostBans) bans_.pop_front();
    bans_.push_back({account.hash, account.id, account.port, later(clock_.now(), banTime)});
}

bool DLPool::isBanned(const UserMeta& user) {
    const i4_lock guard(banLock_);
    while (!bans_.empty() && msBetween(clock_.now(), bans_.front().until) <= 0) bans_.pop_front();
    return std::any_of(bans_.begin(), bans_.end(), [&](const Ban& ban) {
        return (!ban.hash.isZero() && ban.hash == user.hash) || (ban.id == user.id && ban.port == user.port);
    });
}

void DLPool::idChanged() {
    forEach([](Download& download) { download.idChanged(); });
}

i32 DLPool::count() { return static_cast<i32>(downloads_.count()); }
