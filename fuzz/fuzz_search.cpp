// Search trees: reading, writing, evaluating, printing.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "i4min/file/file.h"
#include "meta/FileMeta.h"
#include "server/Search.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::uint8_t> bytes(data, data + size);
    i4_ram_file_class stream(bytes.data(), static_cast<u32>(size), 0);
    stream.setUsed(static_cast<u32>(size));
    Search search;
    if (!search.fromBytes(stream)) return 0;

    i4_owned_ram_file out;
    if (!search.toBytes(out) || out.tell() != search.byteSize()) std::abort();
    const u32 written = out.tell();
    out.seek(0);
    Search again;
    if (!again.fromBytes(out) || out.tell() != written) std::abort();

    FileMeta record;
    record.setName("A Record To Look At.mp3");
    record.setInt(TAG_SIZE, 4711);
    record.setText("Artist", "nobody");
    const bool matches = search.matches(record);
    if (matches != again.matches(record)) std::abort();
    char text[300];
    search.printable(text, sizeof text);
    if (search.keyword().length() > 255) std::abort();
    search.matches(record);
    return 0;
}
