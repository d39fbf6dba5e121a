// share.dat: whole paths are written as the same bytes, unless a 0 in one has ended it early.
#include <cstring>
#include <vector>

#include "download/ShareList.h"
#include "fuzz/fuzz.h"
#include "i4min/file/file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    BytesFile stream({data, size});
    std::vector<i4_string> paths;
    const bool whole = ShareList::readPaths(stream, paths);
    require(!whole || stream.tell() == size);
    i4_owned_ram_file written;
    ShareList::writePaths(written, paths);
    require(written.size() <= size);
    require(!whole || written.size() != size || size == 0 || std::memcmp(written.buffer(), data, size) == 0);
    std::vector<i4_string> again;
    written.seek(0);
    require(ShareList::readPaths(written, again) && again == paths);
    return 0;
}
