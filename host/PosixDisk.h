// PosixDisk, the file systems of the operating system.
#pragma once

#include "i4min/file/Disk.h"

// Passes each call to the system and holds no state of its own. Thread: any.
// Errors: false or null, with the reason in errno.
class PosixDisk final : public Disk {
  public:
    std::unique_ptr<i4_disk_file> open(const char* path, u32 flags) override;
    bool status(const char* path, i4_file_status& out) override;
    bool readLink(const char* path, i4_string& out) override;
    bool list(const char* path, i4_directory_list& out, bool withStatus) override;
    bool makeDirectory(const char* path) override;
    bool remove(const char* path) override;
    bool rename(const char* from, const char* to, Replace replace) override;
    std::unique_ptr<i4_disk_file> openHidden(const char* directory, i4_string& path) override;
    bool syncFolder(const char* path) override;
    u64 freeSpace(const char* path) override;
};
