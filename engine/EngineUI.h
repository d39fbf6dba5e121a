// EngineUI: forwards an engine's output to a user interface that can be replaced at any time.
#pragma once

#include <atomic>
#include <utility>

#include "engine/CoreUIInterface.h"

// Forwards every call to its target.
// Thread: any; replace() not concurrently with itself.
// Borrows: its target. A replaced target must also outlive this object, since a call to it may still be
// running.
class EngineUI final : public CoreUIInterface {
  public:
    EngineUI(const Clock& clock, CoreUIInterface& target) : CoreUIInterface(&clock), target_(&target) {}
    void replace(CoreUIInterface& target) { target_.store(&target, std::memory_order_release); }
    CoreUIInterface& target() const { return *target_.load(std::memory_order_acquire); }

    bool isVerbose() const override { return target().isVerbose(); }
    void setVerbose(bool verbose) override { target().setVerbose(verbose); }
    void say(Text kind, const char* format, va_list list) override { target().say(kind, format, list); }
    void connected(const char* name) override { target().connected(name); }
    void disconnected() override { target().disconnected(); }
    void serverStats(u32 files, u32 users) override { target().serverStats(files, users); }
    void extending(const char* name) override { target().extending(name); }
    void addResult(std::unique_ptr<FileMeta> file) override { target().addResult(std::move(file)); }
    void setResults(FileList* list, u8 more) override { target().setResults(list, more); }
    void gotUserList(UserList* list) override { target().gotUserList(list); }
    void downloadAdded(Download* download) override { target().downloadAdded(download); }
    void downloadRemoved(Download* download) override { target().downloadRemoved(download); }
    void uploadAdded(Upload* upload) override { target().uploadAdded(upload); }
    void uploadRemoved(Upload* upload) override { target().uploadRemoved(upload); }
    void slotAdded(UploadSlot* slot, const char* name) override { target().slotAdded(slot, name); }
    void slotRemoved(UploadSlot* slot) override { target().slotRemoved(slot); }
    void hashing(const char* name) override { target().hashing(name); }
    void friendsChanged() override { target().friendsChanged(); }
    void friendFiles() override { target().friendFiles(); }
    void reserved22() override { target().reserved22(); }
    void reserved23() override { target().reserved23(); }
    void reserved24() override { target().reserved24(); }
    void callMessage(Call* call, const char* text) override { target().callMessage(call, text); }
    void callOpened(Call* call) override { target().callOpened(call); }
    LLsafe<Upload>* getUploads() override { return target().getUploads(); }
    LLsafe<Download>* getDownloads() override { return target().getDownloads(); }
    void loaded() override { target().loaded(); }

  private:
    std::atomic<CoreUIInterface*> target_;
};
