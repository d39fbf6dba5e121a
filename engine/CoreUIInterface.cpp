#include "engine/CoreUIInterface.h"

#include "meta/FileList.h"
#include "meta/UserList.h"

void CoreUIInterface::connected(const char*) {}
void CoreUIInterface::disconnected() {}
void CoreUIInterface::serverStats(u32, u32) {}
void CoreUIInterface::extending(const char*) {}
void CoreUIInterface::addResult(std::unique_ptr<FileMeta>) {}

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
