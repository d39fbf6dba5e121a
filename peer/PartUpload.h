// PartUpload, the transfer of a file that is itself still being downloaded.
#pragma once

#include "download/Download.h"
#include "peer/Upload.h"

// Thread: as Upload.    Borrows: the download's PartialFile, counted.
class PartUpload : public Upload {
  public:
    PartUpload(Download& download, Peer& peer, const MD4Hash& hash);
    bool readData(u8* buffer, u32 length) override;

  private:
    const Ref<PartialFile> partial_;
    bool useFile_ = false;  // the download has finished: the data is read from the finished file
};
