// TcpipUI: a user interface that wraps another one and forwards the engine's events to a remote controller.
#pragma once

#include <memory>

#include "engine/CoreUIInterface.h"
#include "engine/SearchResults.h"
#include "i4min/memory/mutex.h"
#include "i4min/threads/linux/RefCounter.h"
#include "remote/LogonGuard.h"

class Commands;
class Engine;
class GUIController;
class GUIControllerDoor;
class Packet;

// While a controller is attached, most events are sent to it; otherwise they go to the wrapped interface.
// Download and upload events always go to both, since the status packets walk the wrapped interface's lists.
// Thread: any, concurrently.
// Owns: its door, the results. Borrows: the engine, the commands, the wrapped interface; the controller,
// counted.
class TcpipUI : public CoreUIInterface {
  public:
    TcpipUI(Engine& engine, Commands& commands, CoreUIInterface& inner);
    ~TcpipUI() override;

    Engine& engine() const { return engine_; }
    Commands& commands() const { return commands_; }
    // Used by the socket pool's thread only.
    LogonGuard logonGuard;
    u32 strangers = 0;  // connections that haven't logged on yet

    bool attach(GUIController& controller);  // false if another one is attached
    void detach(const GUIController& controller);
    // Returns a copy of a search result, or null if there is none with this hash.
    std::shared_ptr<FileMeta> findResult(const MD4Hash& hash);

    bool isVerbose() const override { return inner_.isVerbose(); }
    void setVerbose(bool verbose) override { inner_.setVerbose(verbose); }
    void say(Text kind, const char* format, va_list list) override;
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
    void slotAdded(UploadSlot* slot, const char* name) override;
    void slotRemoved(UploadSlot* slot) override;
    void hashing(const char* name) override;
    void friendsChanged() override;
    void friendFiles() override;
    LLsafe<Upload>* getUploads() override;
    LLsafe<Download>* getDownloads() override;

  private:
    Ref<GUIController> controller() EXCLUDES(lock_);
    // These return false if no controller is attached.
    bool sendText(u8 opcode, const char* text);
    bool sendEmpty(u8 opcode);
    bool sendWords(u8 opcode, std::initializer_list<u32> words);
    bool sendList(u8 opcode, const MetaList& list);

    Engine& engine_;
    Commands& commands_;
    Ref<GUIControllerDoor> door_;
    i4_mutex lock_{LockRank::controller};
    Ref<GUIController> controller_ GUARDED_BY(lock_);
    CoreUIInterface& inner_;
    SearchResults results_;
};
