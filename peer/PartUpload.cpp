#include "peer/PartUpload.h"

#include "meta/UserMeta.h"

// Someone who fetches a file that we are still fetching has parts of it, or will have, and becomes a source.
PartUpload::PartUpload(Download& download, Peer& peer, const MD4Hash& hash)
    : Upload(nullptr, peer, download.getName().c_str(), hash), partial_(download.partialRef()) {
    UserMeta user;
    copyPeerUser(user);
    download.addSource(user);
}

bool PartUpload::readData(u8* buffer, u32 length) {
    if (useFile_) return Upload::readData(buffer, length);
    switch (partial_->readData(buffer, position(), position() + length)) {
        case PartialFile::Read::ok:
            return true;
        case PartialFile::Read::moved:
            break;
        case PartialFile::Read::gone:
        case PartialFile::Read::unavailable:
            return false;
    }
    const i4_string path = partial_->finalPath();
    file_ = path.isNull() ? nullptr : i4_open_exact(path.c_str(), I4_FILE_READ);
    if (!file_) return false;
    useFile_ = true;
    return Upload::readData(buffer, length);
}
