// share.dat: complete paths are written back as the same bytes, unless a 0 in one has ended it early.
#include <vector>

#include "download/ShareList.h"
#include "fuzz/fuzz.h"
#include "i4min/file/file.h"

FUZZ_TARGET(share) {
    BytesFile stream({data, size});
    std::vector<i4_string> paths;
    const bool whole = ShareList::readPaths(stream, paths);
    require(!whole || stream.tell() == size);
    const Bytes once = written([&](i4_file& out) { ShareList::writePaths(out, paths); });
    require(once.size() <= size && (!whole || once.size() != size || viewOf(once) == viewOf({data, size})));
    std::vector<i4_string> again;
    BytesFile copy(once);
    require(ShareList::readPaths(copy, again) && again == paths);
}
