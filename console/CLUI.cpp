#include "console/CLUI.h"

#include <memory>

#include "console/ConClientApp.h"
#include "engine/Engine.h"
#include "i4min/memory/error.h"

void CLUI::connected(const char* name) { i4_debug_printf("Connected to: %s\n", name); }

void CLUI::disconnected() {
    i4_debug_printf("Disconnected\n");
    console_.serverFiles = 0;
    console_.serverUsers = 0;
}

void CLUI::serverStats(u32 files, u32 users) {
    console_.serverFiles = files;
    console_.serverUsers = users;
}

void CLUI::extending(const char* name) {
    printLine("%s %s", console_.engine().stringTable.get(STRINGS_EXTENDING_TO), name);
}
void CLUI::addResult(std::unique_ptr<FileMeta> file) {
    if (!console_.results.isFull()) console_.results.add(file.release());
}

void CLUI::setResults(FileList* list, u8) {
    const std::unique_ptr<FileList> owned(list);
    console_.results.replaceBy(*list);
    // Printed once they are in the list: `vr` must show them.
    i4_debug_printf("Results returned\n");
}

void CLUI::downloadAdded(Download* download) { console_.downloads.keep(download); }
void CLUI::downloadRemoved(Download* download) { console_.downloads.drop(download); }
void CLUI::uploadAdded(Upload* upload) { console_.uploads.keep(upload); }
void CLUI::uploadRemoved(Upload* upload) { console_.uploads.drop(upload); }
LLsafe<Upload>* CLUI::getUploads() { return &console_.uploads; }
LLsafe<Download>* CLUI::getDownloads() { return &console_.downloads; }
