// CLUI, the console's user interface object: turns the engine's events into printed lines and into entries of
// the lists of ConClientApp.
#pragma once

#include "engine/CoreUIInterface.h"

class ConClientApp;

// Thread: any, at the same time.
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
