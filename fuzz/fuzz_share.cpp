// share.dat: whole paths are written as the same bytes, unless a 0 in one has ended it early.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "download/ShareList.h"
#include "i4min/file/file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> bytes(data, data + size);
    i4_ram_file_class stream(bytes.data(), static_cast<u32>(size), 0);
    std::vector<i4_string> paths;
    const bool whole = ShareList::readPaths(stream, paths);
    if (whole && stream.tell() != size) std::abort();
    i4_owned_ram_file written;
    ShareList::writePaths(written, paths);
    if (written.size() > size) std::abort();
    if (whole && written.size() == size && size > 0 && std::memcmp(written.buffer(), data, size) != 0) {
        std::abort();
    }
    std::vector<i4_string> again;
    written.seek(0);
    if (!ShareList::readPaths(written, again) || again != paths) std::abort();
    return 0;
}
