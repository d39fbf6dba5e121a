// The headers and tags of MPEG audio files.
#include "fuzz/fuzz.h"
#include "import/MP3Info.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    BytesFile file({data, size});
    MP3Info info;
    if (info.read(file) != MP3Info::found) return 0;
    char text[64];
    info.frameCount();
    info.lengthText(text, sizeof text);
    info.getTitle(text, sizeof text);
    info.getComment(text, sizeof text);
    info.getGenre(text, sizeof text);
    info.getChannelMode(text, sizeof text);
    info.getVersion(text, sizeof text);
    return 0;
}
