// The headers and tags of MPEG audio files.
#include "fuzz/fuzz.h"
#include "import/MP3Info.h"

FUZZ_TARGET(mp3) {
    BytesFile file({data, size});
    MP3Info info;
    if (info.read(file) != MP3Info::found) return;
    char text[64];
    info.frameCount();
    info.lengthText(text, sizeof text);
    info.getTitle(text, sizeof text);
    info.getComment(text, sizeof text);
    info.getGenre(text, sizeof text);
    info.getChannelMode(text, sizeof text);
    info.getVersion(text, sizeof text);
}
