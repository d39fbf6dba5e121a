// What HashThread works on in the running program.
#pragma once

#include "download/HashThread.h"

class ApplicationHashDuties final : public HashDuties {
  public:
    FileList& known() override;
    FileList& shared() override;
    ShareList& shareDirs() override;
    void addSharedFile(FileMeta* file) override;
    void changeFile(FileMeta* file, const std::function<void(FileMeta&)>& change) override;
    bool importFile(FileMeta& file, const char* path, const char* name) override;
    void verify(const Ref<Download>& download, const GiveUp& giveUp) override;
    void publish() override;
};
