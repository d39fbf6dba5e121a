#include "console/CLUI.h"

#include <memory>

#include "app/StringTable.h"
#include "console/ConClientApp.h"
#include "i4min/memory/error.h"

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

void CLUI::downloadAdded(Download* download) { conClientApp.downloads.keep(download); }
void CLUI::downloadRemoved(Download* download) { conClientApp.downloads.drop(download); }
void CLUI::uploadAdded(Upload* upload) { conClientApp.uploads.keep(upload); }
void CLUI::uploadRemoved(Upload* upload) { conClientApp.uploads.drop(upload); }
LLsafe<Upload>* CLUI::getUploads() { return &conClientApp.uploads; }
LLsafe<Download>* CLUI::getDownloads() { return &conClientApp.downloads; }
