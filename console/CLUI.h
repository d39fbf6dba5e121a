// CLUI: the console's user interface. Prints the engine's events and fills the lists of ConClientApp.
#pragma once

#include "engine/CoreUIInterface.h"

class ConClientApp;

// Receives the engine's events for the console.
// Thread: any, concurrently. Borrows: the ConClientApp.
class CLUI : public CoreUIInterface {
  public:
    explicit CLUI(ConClientApp& console) : console_(console) {}
    void connected(const char* name) override;
    void disconnected() override;
    void serverStats(u32 files, u32 users) override;
    void extending(const char* name) override;
    void addResult(std::unique_ptr<FileMeta> file) override;
    void setResults(FileList* list, u8 more) override;
    void downloadAdded(Download* download) override;
    void downloadRemoved(Download* download) override;
    void uploadAdded(Upload* upload) override;
    void uploadRemoved(Upload* upload) override;
    LLsafe<Upload>* getUploads() override;
    LLsafe<Download>* getDownloads() override;

  private:
    ConClientApp& console_;
};
