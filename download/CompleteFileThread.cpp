#include "download/CompleteFileThread.h"

#include "download/DownloadBody.h"

CompleteFileThread::~CompleteFileThread() { stop(); }

Rest CompleteFileThread::run() {
    const PartialFile::Completion result = download_.partial().complete([this] { return isStopping(); });
    // Not before: what has ended its loop can't be asked to stop any more.
    endLoop();
    download_.completed(result);
    return Rest::none();
}
