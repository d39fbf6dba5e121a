// CoreUIInterface: the user interface of an engine.
#pragma once

#include <memory>

#include "core/UIInterface.h"
#include "download/DownloadNeeds.h"
#include "meta/FileMeta.h"
#include "peer/PeerNeeds.h"
#include "server/ServerNeeds.h"

class FileList;
class UserList;

// Receives the events of all modules; by default it ignores them. An implementation that keeps a counted
// object must take a reference of its own.
// Thread: any, concurrently.
class CoreUIInterface : public UIInterface, public ServerUI, public PeerUI, public DownloadUI {
  public:
    using UIInterface::UIInterface;
    void connected(const char* name) override;
    void disconnected() override;
    void serverStats(u32 files, u32 users) override;
    void extending(const char* name) override;
    // With these three, the record, or the list and its records, become the interface's own: by default it
    // destroys them.
    virtual void addResult(std::unique_ptr<FileMeta> file);
    virtual void setResults(FileList* list, u8 more);
    virtual void gotUserList(UserList* list);
    void downloadAdded(Download* download) override;
    void downloadRemoved(Download* download) override;
    void uploadAdded(Upload* upload) override;
    void uploadRemoved(Upload* upload) override;
    void slotAdded(UploadSlot* slot, const char* name) override;
    void slotRemoved(UploadSlot* slot) override;
    void hashing(const char* name) override;
    void friendsChanged() override;
    void friendFiles() override;
    virtual void reserved22();
    virtual void reserved23();
    virtual void reserved24();
    void callMessage(Call* call, const char* text) override;
    void callOpened(Call* call) override;
    virtual LLsafe<Upload>* getUploads();      // null if the interface keeps no list
    virtual LLsafe<Download>* getDownloads();  // null if the interface keeps no list
    virtual void loaded();
};
