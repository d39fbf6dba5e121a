#include "app/UIInterface.h"

#include <cstdio>

#include "meta/FileList.h"
#include "meta/UserList.h"

void UIInterface::printLine(const char* format, ...) {
    va_list list;
    va_start(list, format);
    // One call for text and newline, so that lines of different threads don't mix.
    flockfile(stdout);
    std::vprintf(format, list);
    std::putchar('\n');
    funlockfile(stdout);
    va_end(list);
}

void UIInterface::print(const char* format, ...) {
    va_list list;
    va_start(list, format);
    std::vprintf(format, list);
    va_end(list);
}

void UIInterface::printVerbose(const char* format, ...) {
    if (!verbose.load(std::memory_order_relaxed)) return;
    va_list list;
    va_start(list, format);
    std::vprintf(format, list);
    va_end(list);
}

void UIInterface::printFlush(const char* format, ...) {
    va_list list;
    va_start(list, format);
    std::vprintf(format, list);
    va_end(list);
    std::fflush(stdout);
}

void CoreUIInterface::connected(const char*) {}
void CoreUIInterface::disconnected() {}
void CoreUIInterface::serverStats(u32, u32) {}
void CoreUIInterface::extending(const char*) {}
void CoreUIInterface::addResult(FileMeta* file) { delete file; }

void CoreUIInterface::setResults(FileList* list, u8) {
    if (list) list->deleteAll();
    delete list;
}

void CoreUIInterface::gotUserList(UserList* list) {
    if (list) list->deleteAll();
    delete list;
}

void CoreUIInterface::downloadAdded(Download*) {}
void CoreUIInterface::downloadRemoved(Download*) {}
void CoreUIInterface::uploadAdded(Upload*) {}
void CoreUIInterface::uploadRemoved(Upload*) {}
void CoreUIInterface::slotAdded(UploadSlot*, const char*) {}
void CoreUIInterface::slotRemoved(UploadSlot*) {}
void CoreUIInterface::hashing(const char*) {}
void CoreUIInterface::friendsChanged() {}
void CoreUIInterface::friendFiles() {}
void CoreUIInterface::reserved22() {}
void CoreUIInterface::reserved23() {}
void CoreUIInterface::reserved24() {}
void CoreUIInterface::callMessage(Call*, const char*) {}
void CoreUIInterface::callOpened(Call*) {}
LLsafe<Upload>* CoreUIInterface::getUploads() { return nullptr; }
LLsafe<Download>* CoreUIInterface::getDownloads() { return nullptr; }
void CoreUIInterface::loaded() {}

namespace {

CoreUIInterface standIn;

}  // namespace

constinit SharedPointer<UIInterface> theLog(&standIn);
constinit SharedPointer<CoreUIInterface> theUI(&standIn);
