// The lists that a HashThread works on, without an application around it.
#pragma once

#include <functional>

#include "download/HashThread.h"
#include "download/ShareList.h"
#include "i4min/threads/linux/semaphore.h"
#include "import/ImporterList.h"
#include "meta/FileList.h"

// Thread: the hash thread's, while it runs. Owns: its records.
class HashedFiles : public HashDuties {
  public:
    explicit HashedFiles(Core& core) : directories(core), core_(core) {}
    virtual ~HashedFiles() { knownFiles.deleteAll(); }

    FileList& known() override { return knownFiles; }
    FileList& shared() override { return sharedFiles; }
    ShareList& shareDirs() override { return directories; }
    void addSharedFile(FileMeta* file) override {
        sharedFiles.add(file);
        knownFiles.add(file);
    }
    void changeFile(FileMeta* file, const std::function<void(FileMeta&)>& change) override {
        knownFiles.change(file, [&](FileMeta&) { sharedFiles.change(file, change); });
    }
    bool importFile(FileMeta& file, const char* path, const char* name) override {
        if (onImport) onImport();
        return importers.importFile(file, core_.host.disk, core_.log, path, name);
    }
    void verify(const Ref<Download>&, const GiveUp& giveUp) override {
        if (onVerify) onVerify(giveUp);
    }
    void publish() override { published.signal(); }

    FileList knownFiles{LockRank::knownFiles};
    FileList sharedFiles{LockRank::sharedFiles};
    ShareList directories;
    ImporterList importers;
    std::function<void(const GiveUp& giveUp)> onVerify;
    std::function<void()> onImport;
    i4_semaphore published;  // signalled at the end of each run

  private:
    Core& core_;
};
