#include "peer/PartUpload.h"

PartUpload::PartUpload(UploadOwner& owner, UIInterface& log, Disk& disk, Ref<PartReader> parts, Peer& peer,
                       const MD4Hash& hash)
    : Upload(owner, log, nullptr, peer, parts->getName().c_str(), hash),
      disk_(disk),
      parts_(std::move(parts)) {}

bool PartUpload::readData(u8* buffer, u32 length) {
    if (useFile_) return Upload::readData(buffer, length);
    switch (parts_->readData(buffer, position(), position() + length)) {
        case PartReader::Read::ok:
            return true;
        case PartReader::Read::moved:
            break;
        case PartReader::Read::gone:
        case PartReader::Read::unavailable:
            return false;
    }
    const i4_string path = parts_->finalPath();
    file_ = path.isNull() ? nullptr : disk_.open(path.c_str(), I4_FILE_READ);
    if (!file_) return false;
    useFile_ = true;
    return Upload::readData(buffer, length);
}
