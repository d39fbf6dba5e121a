// Search trees: reading, writing, evaluating, printing.
#include "fuzz/fuzz.h"
#include "i4min/file/file.h"
#include "meta/FileMeta.h"
#include "server/Search.h"

FUZZ_TARGET(search) {
    static Silence silence;
    BytesFile stream({data, size});
    Search search;
    if (!search.fromBytes(stream)) return;

    const Bytes bytes = written([&](i4_file& out) { require(search.toBytes(out)); });
    require(bytes.size() == search.byteSize());
    BytesFile copy(bytes);
    Search again;
    require(again.fromBytes(copy) && copy.tell() == bytes.size());

    FileMeta record;
    record.setName("A Record To Look At.mp3");
    record.setInt(TAG_SIZE, 4711);
    record.setText("Artist", "nobody");
    const bool matches = search.matches(record);
    require(matches == again.matches(record));
    char text[300];
    search.printable(text, sizeof text);
    require(search.keyword().length() <= 255);
    search.matches(record);
}
