// Tags from anybody's bytes, one behind the other, and the bit array that a peer sends bare. What reads is
// written again as it is told, and reads back as the same.
#include <algorithm>

#include "fuzz/fuzz.h"
#include "i4min/file/file.h"
#include "i4min/memory/error.h"
#include "meta/BoolArray.h"
#include "meta/MetaTag.h"

namespace {

bool sameBytes(i4_ram_file_class& a, i4_ram_file_class& b) {
    return a.size() == b.size() && std::equal(a.buffer(), a.buffer() + a.size(), b.buffer());
}

void check(MetaTag& tag) {
    i4_owned_ram_file once;
    require(tag.toNetwork(once));
    const auto* bits = static_cast<const BoolArray*>(tag.getValue());
    const bool emptyBits = tag.type() == META_TAG_BOOLARRAY && bits->size() == 0;
    require(once.size() + (emptyBits ? 1 : 0) == tag.byteSize());
    once.seek(0);
    const auto again = MetaTag::readTag(once);
    require(again != nullptr);
    i4_owned_ram_file twice;
    require(again->toDisk(twice) && sameBytes(once, twice));
    i4_owned_ram_file cloned;
    require(tag.clone()->toNetwork(cloned) && sameBytes(once, cloned));
    char text[20];
    for (i32 room = 0; room <= i32{sizeof text}; ++room) tag.printable(text, room);
    tag.displayName();
    tag.flagA();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
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
    return 0;
}
