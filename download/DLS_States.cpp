#include "download/DLS_States.h"

#include "app/MessageQ.h"
#include "app/StringTable.h"
#include "app/UIInterface.h"
#include "download/DLPool.h"
#include "download/DLS_Downloading.h"
#include "download/Download.h"

namespace {

constexpr i32 retryWithoutSources = 1'200'000;  // ms

template <class State>
void change(Download& download) {
    download.stateLock().assertHeld();
    download.setState(std::make_unique<State>(download));
}

void refuseCancel(Download& download) {
    theLog->printLine("%s", stringTable.get(STRINGS_CANT_CANCEL_HASH));
    theUI->downloadAdded(&download);
}

}  // namespace

u32 DownloadState::bytesToFill() {
    const PartialFile& partial = download.partial();
    return partial.fileSize() - std::min(partial.fileSize(), partial.fileEnd());
}

void DownloadState::cancel() {
    download.partial().cancel();
    messageQ.post(MESSAGE_DOWNLOAD_GONE, Ref<Download>(&download));
}

void DLS_Queued::tick(i32 elapsedMs) {
    if (!dlPool.canStart() && !download.partial().isEmpty()) return;
    Download& owner = download;
    owner.stateLock().assertHeld();
    change<DLS_Downloading>(owner);
    owner.state().tick(elapsedMs);
}

void DLS_Queued::pause() { change<DLS_Paused>(download); }

DLS_Paused::DLS_Paused(Download& owner) : DownloadState(owner, DL_STATUS_PAUSED) { owner.speed = 0; }

void DLS_Paused::resume() {
    messageQ.post(MESSAGE_CHECK_DISK);
    change<DLS_Queued>(download);
}

void DLS_DiskFull::pause() { change<DLS_Paused>(download); }

u32 DLS_DiskFull::diskFreed() {
    const u32 bytes = bytesToFill();
    change<DLS_Queued>(download);
    return bytes;
}

void DLS_NoSources::tick(i32 elapsedMs) {
    idle_ += elapsedMs;
    if (idle_ > retryWithoutSources) change<DLS_Queued>(download);
}

void DLS_NoSources::pause() { change<DLS_Paused>(download); }

DLS_Done::DLS_Done(Download& owner, i32 statusNumber) : DownloadState(owner, statusNumber) {
    owner.speed = 0;
}

void DLS_Hashing::cancel() { refuseCancel(download); }

void DLS_Hashing::hashDone() {
    messageQ.post(MESSAGE_CHECK_DISK);
    change<DLS_Queued>(download);
}

void DLS_PausedHashing::cancel() { refuseCancel(download); }
void DLS_PausedHashing::hashDone() { change<DLS_Paused>(download); }
