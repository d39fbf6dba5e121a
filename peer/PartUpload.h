// PartUpload: the upload of a file that is still being downloaded.
#pragma once

#include "i4min/file/Disk.h"
#include "peer/PeerNeeds.h"
#include "peer/Upload.h"

// Reads through the download's PartReader, and from the finished file once the download is complete.
// Thread: as Upload. Borrows: the PartReader, counted.
class PartUpload : public Upload {
  public:
    PartUpload(UploadOwner& owner, UIInterface& log, Disk& disk, Ref<PartReader> parts, Peer& peer,
               const MD4Hash& hash);
    bool readData(u8* buffer, u32 length) override;

  private:
    Disk& disk_;
    const Ref<PartReader> parts_;
    bool useFile_ = false;  // the download is complete: read the finished file
};
