#include "app/UIInterface.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "i4min/file/output.h"
#include "i4min/string/string.h"
#include "i4min/threads/linux/i4_time.h"
#include "meta/FileList.h"
#include "meta/UserList.h"

namespace {

constexpr u32 mostComplaints = 60;  // of one kind in a minute

// Names and messages of strangers are among what is printed: none may steer the user's terminal. All of it
// goes at once, so that lines of different threads don't mix.
void write(const char* format, va_list list, const char* end = "") {
    char* text = nullptr;
    const int length = ::vasprintf(&text, format, list);
    if (length < 0) return;
    const std::unique_ptr<char, void (*)(void*)> owned(text, std::free);
    i4_replace_controls(text, static_cast<std::size_t>(length));
    i4_standard_output().write(STDOUT_FILENO, std::string(text, static_cast<std::size_t>(length)) + end);
}

}  // namespace

void UIInterface::printLine(const char* format, ...) {
    va_list list;
    va_start(list, format);
    write(format, list, "\n");
    va_end(list);
}

void UIInterface::print(const char* format, ...) {
    va_list list;
    va_start(list, format);
    write(format, list);
    va_end(list);
}

void UIInterface::printVerbose(const char* format, ...) {
    if (!verbose.load(std::memory_order_relaxed)) return;
    va_list list;
    va_start(list, format);
    write(format, list);
    va_end(list);
}

void UIInterface::printFlush(const char* format, ...) {
    va_list list;
    va_start(list, format);
    write(format, list);
    va_end(list);
}

// Threads that meet at the turn of a minute may miscount by a few.
bool UIInterface::mayComplain(Complaint kind) {
    Budget& budget = budgets_[static_cast<std::size_t>(kind)];
    const u32 minute = i4_ticks() / 60'000;
    if (budget.minute.exchange(minute) != minute) budget.spent = 0;
    return budget.spent < mostComplaints && budget.spent++ < mostComplaints;
}

void CoreUIInterface::connected(const char*) {}
void CoreUIInterface::disconnected() {}
void CoreUIInterface::serverStats(u32, u32) {}
void CoreUIInterface::extending(const char*) {}
void CoreUIInterface::addResult(FileMeta* file) { delete file; }

void CoreUIInterface::setResults(FileList* list, u8) { const OwnedList<FileList> owned(list); }
void CoreUIInterface::gotUserList(UserList* list) { const OwnedList<UserList> owned(list); }
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
