// pref.met: what can be read is written again, and what was written is read back as the same bytes.
#include "core/Preferences.h"
#include "fuzz/fuzz.h"

namespace {

Bytes encode(Preferences& settings) {
    return written([&](i4_file& out) { require(settings.toDisk(out)); });
}

}  // namespace

FUZZ_TARGET(prefs) {
    static Silence silence;
    BytesFile stream({data, size});
    OwnEngine& own = quietEngine();
    Preferences settings(own.host.host, own.log, own.engine.stringTable, "");
    if (!settings.fromDisk(stream)) return;
    require(settings.incomingDir().length() > 0 && settings.tempDir().length() > 0);
    require(settings.userMaxUpF >= 0 && settings.userMaxDownF >= 0);
    require(settings.doorPort >= 1 && settings.adminDoorPort >= 1);

    const Bytes once = encode(settings);
    BytesFile copy(once);
    Preferences again(own.host.host, own.log, own.engine.stringTable, "");
    require(again.fromDisk(copy) && encode(again) == once);
}
