// The saved form of a gap list from anybody's bytes. What reads is written back as it was, and lives through
// changes, even where its gaps overlap.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "download/GapList.h"
#include "i4min/file/file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> bytes(data, data + size);
    i4_ram_file_class file(bytes.data(), static_cast<u32>(size), 0);
    GapList list;
    if (!list.fromFile(file)) return 0;
    list.checkInvariants();

    i4_owned_ram_file again;
    if (!list.toFile(again) || again.tell() != list.fileSize() || again.tell() != file.tell() ||
        !std::equal(again.buffer(), again.buffer() + again.tell(), bytes.begin())) {
        std::abort();
    }

    const std::vector<Gap> gaps = list.gaps();
    for (const Gap& gap : gaps) {
        if (!list.overlaps(gap.start, gap.end)) std::abort();
    }
    for (const Gap& gap : gaps) {
        list.removeGap(gap.start + 1, gap.end);
        list.addGap(gap.start, gap.start + 2);
    }
    list.invert(4294967295);
    list.removeGap(0, 4294967297);
    if (!list.isEmpty()) std::abort();
    return 0;
}
