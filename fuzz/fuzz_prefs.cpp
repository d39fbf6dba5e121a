// pref.met: what reads is written again, and what was written reads back as the same bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "app/Preferences.h"
#include "app/UIInterface.h"
#include "i4min/file/file.h"

namespace {

// Damage is told in lines, which nobody reads here.
class Silence : public CoreUIInterface {
  public:
    void printLine(const char*, ...) override PRINTF_LIKE {}
    void print(const char*, ...) override PRINTF_LIKE {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Silence silence;
    theLog = &silence;
    std::vector<std::uint8_t> bytes(data, data + size);
    i4_ram_file_class stream(bytes.data(), static_cast<u32>(size), 0);
    Preferences settings;
    settings.workDir = "/nowhere";
    if (!settings.fromDisk(stream)) return 0;
    if (settings.incomingDir().length() == 0 || settings.tempDir().length() == 0) std::abort();
    if (!(settings.userMaxUpF >= 0) || !(settings.userMaxDownF >= 0)) std::abort();
    if (settings.doorPort < 1 || settings.adminDoorPort < 1) std::abort();

    i4_owned_ram_file once;
    if (!settings.toDisk(once)) std::abort();
    const u32 written = once.tell();
    once.seek(0);
    Preferences again;
    again.workDir = "/nowhere";
    if (!again.fromDisk(once)) std::abort();
    i4_owned_ram_file twice;
    if (!again.toDisk(twice) || twice.tell() != written) std::abort();
    if (std::memcmp(once.buffer(), twice.buffer(), written) != 0) std::abort();
    return 0;
}
