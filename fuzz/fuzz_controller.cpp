// What comes in at the controller's port: messages one after the other, each a u16 length and a body; the
// first is the log-on. The engine behind it is the real one, without threads but for the status thread.
#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "console/CLUI.h"
#include "console/ConClientApp.h"
#include "download/DLPool.h"
#include "fuzz/fuzz.h"
#include "i4min/memory/error.h"
#include "i4min/network/protocol.h"
#include "i4min/network/socket.h"
#include "remote/ControllerOpcodes.h"
#include "remote/GUIController.h"
#include "remote/TcpipUI.h"
#include "server/ServerPool.h"

namespace {

class QuietUI : public CLUI {
  public:
    void printLine(const char*, ...) override PRINTF_LIKE {}
    void print(const char*, ...) override PRINTF_LIKE {}
    void printVerbose(const char*, ...) override PRINTF_LIKE {}
    void printFlush(const char*, ...) override PRINTF_LIKE {}
    void extending(const char*) override {}
};

class FuzzedController : public GUIController {
  public:
    explicit FuzzedController(TcpipUI& ui) : GUIController(nullptr, nullptr, ui) {}

    // False once the connection would be dropped.
    bool hear(const std::string& body) {
        i4_ram_file_class stream(const_cast<char*>(body.data()), static_cast<u32>(body.size()), 0);
        try {
            const u8 opcode = stream.read_8();
            if (!gotFirst) return firstMessage(opcode, stream);
            if (opcode != CTL_COMMAND) return handleMessage(opcode, stream);
            // What the console's commands do isn't this protocol's, and some of them walk over the disk.
            static_cast<void>(i4_string(stream));
            return true;
        } catch (const i4_err&) {
            return false;
        }
    }
};

std::unique_ptr<FileMeta> record(u8 fill, const char* name) {
    auto file = std::make_unique<FileMeta>();
    file->hash = hashOf(fill);
    file->setName(name);
    file->setInt(TAG_SIZE, 20'000'000);
    return file;
}

TcpipUI& setUp() {
    std::string directory = std::filesystem::temp_directory_path() / "fuzz_controller.XXXXXX";
    if (!::mkdtemp(directory.data())) std::abort();
    std::atexit([] { std::filesystem::remove_all(preferences.workDir.c_str()); });
    preferences.workDir = directory.c_str();
    preferences.load();
    preferences.setAdmin("kit", "pass");
    preferences.adminDoorPort = 0;
    makeProtocol(nullptr);
    serverPool.setSocketPool(&clientApp.socketPool);
    auto* ui = new TcpipUI(*new QuietUI);
    theLog = ui;
    theUI = ui;
    return *ui;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static TcpipUI& ui = setUp();
    std::filesystem::create_directories(preferences.tempDir().c_str());
    dlPool.add(*record(0xBB, "wanted.bin"));
    const Ref<FuzzedController> controller(new FuzzedController(ui));
    for (size_t at = 0; at + 2 < size;) {
        const size_t length =
            std::min<size_t>(data[at] | static_cast<size_t>(data[at + 1]) << 8, size - at - 2);
        if (!controller->hear(std::string(reinterpret_cast<const char*>(data) + at + 2, length))) break;
        ui.addResult(record(0xCC, "found.bin").release());
        controller->sendStatus();
        at += 2 + length;
    }
    controller->end();
    while (messageQ.process()) continue;
    // What a run leaves behind.
    serverPool.stopTrying();
    serverPool.servers().deleteAll();
    while (Download* download = conClientApp.downloads.first()) {
        dlPool.remove(Ref<Download>(download));
        conClientApp.downloads.drop(download);
    }
    conClientApp.results.deleteAll();
    clientApp.socketPool.deleteConnections();
    while (messageQ.process()) continue;
    std::filesystem::remove_all(preferences.tempDir().c_str());
    return 0;
}
