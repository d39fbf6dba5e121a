#include "download/CompleteFileThread.h"

#include "app/MessageQ.h"
#include "download/DLS_States.h"
#include "download/Download.h"

CompleteFileThread::~CompleteFileThread() { stop(); }

void CompleteFileThread::run() {
    const PartialFile::Completion result = download_.partial().complete([this] { return isStopping(); });
    // Not before: what has ended its loop can't be asked to stop any more.
    endLoop();
    // The program ends: the file is saved as it is, and completed at the next start.
    if (result == PartialFile::Completion::abandoned) return;
    const bool good = result == PartialFile::Completion::good;
    {
        const i4_guard guard(download_.stateLock());
        download_.setState(
            std::make_unique<DLS_Done>(download_, good ? DL_STATUS_COMPLETE : DL_STATUS_CORRUPTED));
    }
    messageQ.post(MESSAGE_DOWNLOAD_GONE, Ref<Download>(&download_));
}
