// The saved form of a gap list from any bytes. What can be read is written back unchanged, and survives
// changes even if its gaps overlap.
#include <vector>

#include "download/GapList.h"
#include "fuzz/fuzz.h"
#include "i4min/file/file.h"

FUZZ_TARGET(gaplist) {
    BytesFile file({data, size});
    GapList list;
    if (!list.fromFile(file)) return;
    list.checkInvariants();

    const Bytes again = written([&](i4_file& out) { require(list.toFile(out)); });
    require(again.size() == list.fileSize() && viewOf(again) == viewOf({data, file.tell()}));

    const std::vector<Gap> gaps = list.gaps();
    for (const Gap& gap : gaps) require(list.overlaps(gap.start, gap.end));
    for (const Gap& gap : gaps) {
        list.removeGap(gap.start + 1, gap.end);
        list.addGap(gap.start, gap.start + 2);
    }
    list.invert(4294967295);
    list.removeGap(0, 4294967297);
    require(list.isComplete());
}
