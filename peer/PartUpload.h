// PartUpload, the transfer of a file that is itself still being downloaded.
#pragma once

#include "i4min/file/Disk.h"
#include "peer/PeerNeeds.h"
#include "peer/Upload.h"

// Thread: as Upload.    Borrows: the file that is on its way in, counted.
class PartUpload : public Upload {
  public:
    PartUpload(UploadOwner& owner, UIInterface& log, Disk& disk, Ref<PartReader> parts, Peer& peer,
               const MD4Hash& hash);
    bool readData(u8* buffer, u32 length) override;

  private:
    Disk& disk_;
    const Ref<PartReader> parts_;
    bool useFile_ = false;  // the download has finished: the data is read from the finished file
};
