// The saved form of a gap list from anybody's bytes. What reads is written back as it was, but for gaps that
// overlap or touch, which are joined.
#include <vector>

#include "download/GapList.h"
#include "fuzz/fuzz.h"
#include "i4min/file/file.h"

FUZZ_TARGET(gaplist) {
    BytesFile file({data, size});
    GapList list;
    if (!list.fromFile(file)) return;
    list.checkInvariants();

    const u64 read = file.tell();
    const Bytes again = written([&](i4_file& out) { require(list.toFile(out)); });
    require(again.size() == list.fileSize() && again.size() <= read);
    if (again.size() == read) require(viewOf(again) == viewOf({data, read}));

    const std::vector<Gap> gaps = list.gaps();
    for (const Gap& gap : gaps) require(list.overlaps(gap.start, gap.end));
    for (const Gap& gap : gaps) {
        list.removeGap(gap.start + 1, gap.end);
        list.addGap(gap.start, gap.start + 2);
    }
    list.invert(4294967295);
    list.removeGap(0, 4294967297);
    list.checkInvariants();
    require(list.isComplete());
}
