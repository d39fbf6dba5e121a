#include "console/CLUI.h"

#include <memory>

#include "app/StringTable.h"
#include "console/ConClientApp.h"
#include "i4min/memory/error.h"

namespace {

// A list entry holds one reference. An event may repeat: an entry stands once.
template <class T>
void keep(LLsafe<T>& list, T* object) {
    const i4_guard guard(list);
    if (list.contains(object)) return;
    object->addRef();
    list.addUnsafe(object);
}

template <class T>
void drop(LLsafe<T>& list, T* object) {
    if (list.remove(object)) object->release();
}

}  // namespace

void CLUI::connected(const char* name) { i4_debug_printf("Connected to: %s\n", name); }

void CLUI::disconnected() {
    i4_debug_printf("Disconnected\n");
    conClientApp.serverFiles = 0;
    conClientApp.serverUsers = 0;
}

void CLUI::serverStats(u32 files, u32 users) {
    conClientApp.serverFiles = files;
    conClientApp.serverUsers = users;
}

void CLUI::extending(const char* name) { printLine("%s %s", stringTable.get(STRINGS_EXTENDING_TO), name); }
void CLUI::addResult(FileMeta* file) {
    std::unique_ptr<FileMeta> owned(file);
    if (!conClientApp.results.isFull()) conClientApp.results.add(owned.release());
}

void CLUI::setResults(FileList* list, u8) {
    const std::unique_ptr<FileList> owned(list);
    conClientApp.results.replaceBy(*list);
    // Said when they are there: who reads it types `vr`.
    i4_debug_printf("Results returned\n");
}

void CLUI::downloadAdded(Download* download) { keep(conClientApp.downloads, download); }
void CLUI::downloadRemoved(Download* download) { drop(conClientApp.downloads, download); }
void CLUI::uploadAdded(Upload* upload) { keep(conClientApp.uploads, upload); }
void CLUI::uploadRemoved(Upload* upload) { drop(conClientApp.uploads, upload); }
LLsafe<Upload>* CLUI::getUploads() { return &conClientApp.uploads; }
LLsafe<Download>* CLUI::getDownloads() { return &conClientApp.downloads; }
