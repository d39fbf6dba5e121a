#include "download/DLS_States.h"

#include "download/DownloadBody.h"

namespace {

constexpr i32 retryWithoutSources = 1'200'000;  // ms

void refuseCancel(DownloadBody& download) {
    const Core& core = download.needs.core;
    core.log.printLine("%s", core.strings.get(STRINGS_CANT_CANCEL_HASH));
    download.show();
}

void checkDisk(const DownloadBody& download) { download.needs.core.messages.post(MESSAGE_CHECK_DISK); }

}  // namespace

u32 DownloadState::bytesToFill() {
    const PartialFile& partial = download.partial();
    return partial.fileSize() - std::min(partial.fileSize(), partial.fileEnd());
}

void DownloadState::cancel() {
    download.partial().cancel();
    download.leavePool();
}

void DLS_Queued::tick(i32 elapsedMs) {
    if (!download.owner.canStart() && !download.partial().isComplete()) return;
    download.become(Stage::downloading).tick(elapsedMs);
}

void DLS_Queued::pause() { download.become(Stage::paused); }

void DLS_Paused::resume() {
    checkDisk(download);
    download.become(Stage::queued);
}

void DLS_DiskFull::pause() { download.become(Stage::paused); }

u32 DLS_DiskFull::diskFreed() {
    const u32 bytes = bytesToFill();
    download.become(Stage::queued);
    return bytes;
}

void DLS_NoSources::tick(i32 elapsedMs) {
    idle_ += elapsedMs;
    if (idle_ > retryWithoutSources) download.become(Stage::queued);
}

void DLS_NoSources::pause() { download.become(Stage::paused); }

void DLS_Hashing::cancel() { refuseCancel(download); }

void DLS_Hashing::hashDone() {
    checkDisk(download);
    download.become(Stage::queued);
}

void DLS_PausedHashing::cancel() { refuseCancel(download); }
void DLS_PausedHashing::hashDone() { download.become(Stage::paused); }
