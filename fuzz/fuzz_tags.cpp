// A sequence of tags from any bytes, and the bare bit array that a peer sends. What can be read is written in
// its announced size, and read back as the same.
#include "fuzz/fuzz.h"
#include "i4min/file/file.h"
#include "meta/BoolArray.h"
#include "meta/MetaTag.h"

namespace {

void check(MetaTag& tag) {
    const Bytes once = written([&](i4_file& out) { require(tag.toNetwork(out)); });
    const auto* bits = std::get_if<Boxed<BoolArray>>(&tag.getValue());
    const bool emptyBits = bits && (*bits)->size() == 0;
    require(once.size() + (emptyBits ? 1 : 0) == tag.byteSize());
    BytesFile copy(once);
    const auto again = MetaTag::readTag(copy);
    require(again && written([&](i4_file& out) { require(again->toDisk(out)); }) == once);
    require(written([&](i4_file& out) { require(tag.clone()->toNetwork(out)); }) == once);
    char text[20];
    for (i32 room = 0; room <= i32{sizeof text}; ++room) tag.printable(text, room);
    tag.displayName();
    tag.flagA();
}

}  // namespace

FUZZ_TARGET(tags) {
    BytesFile file({data, size});
    while (const auto tag = MetaTag::readTag(file)) check(*tag);

    BytesFile bare({data, size});
    BoolArray bits;
    try {
        bits.read(bare);
    } catch (const i4_err&) {
        require(bits.size() == 0);
    }
    require(bits.toText().size() == static_cast<std::size_t>(bits.size()) && !bits.get(bits.size()));
}
