// Captures the text and the events that the engine reports to its user interface.
#pragma once

#include "download/Download.h"
#include "meta/FileList.h"
#include "meta/UserList.h"
#include "peer/Upload.h"
#include "tests/support/CapturedLog.h"
#include "tests/support/Conversation.h"

// Each event is a line in brackets. Thread: any.
class ToldEvents : public CapturedLog {
  public:
    void connected(const char* name) override { printLine("[connected %s]", name); }
    void disconnected() override { printLine("[disconnected]"); }
    void serverStats(u32 files, u32 users) override { printLine("[stats %u files %u users]", files, users); }
    void extending(const char* name) override { printLine("[extending %s]", name); }
    void addResult(std::unique_ptr<FileMeta> file) override { printLine("[result %s]", file->getName()); }
    void setResults(FileList* list, u8 more) override {
        printLine("[results %u more %d]", list->count(), more);
        CapturedLog::setResults(list, more);
    }
    void gotUserList(UserList* list) override {
        printLine("[users %u]", list->count());
        CapturedLog::gotUserList(list);
    }
    void downloadAdded(Download* download) override {
        if (!downloads.contains(download)) downloads.add(download);
        printLine("[download]");
    }
    void downloadRemoved(Download* download) override {
        downloads.remove(download);
        printLine("[download gone]");
    }
    void uploadAdded(Upload* upload) override {
        uploads.add(upload);
        printLine("[upload]");
    }
    void uploadRemoved(Upload* upload) override {
        uploads.remove(upload);
        printLine("[upload gone]");
    }
    void slotAdded(UploadSlot*, const char* name) override { printLine("[slot %s]", name); }
    void slotRemoved(UploadSlot*) override { printLine("[slot gone]"); }
    void hashing(const char* name) override { printLine("[hashing %s]", name); }
    void friendsChanged() override { printLine("[friends]"); }
    void friendFiles() override { printLine("[friend files]"); }
    void callMessage(Call*, const char* text) override { printLine("[call %s]", text); }
    void callOpened(Call*) override { printLine("[call]"); }
    LLsafe<Upload>* getUploads() override { return &uploads; }
    LLsafe<Download>* getDownloads() override { return &downloads; }

    // Waits until `text` was printed, and returns all output.
    std::string until(const std::string& text) {
        std::string all;
        eventually([&] {
            all += take();
            return all.find(text) != std::string::npos;
        });
        return all;
    }

    LLsafe<Download> downloads{LockRank::uiList};
    LLsafe<Upload> uploads{LockRank::uiList};
};
