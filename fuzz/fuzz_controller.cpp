// What comes in at the controller's port: messages one after the other, each a u16 length and a body; the
// first is the log-on. The engine behind it is the real one, without threads but for the status thread.
#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/Preferences.h"
#include "console/CLUI.h"
#include "console/ConClientApp.h"
#include "download/DLPool.h"
#include "fuzz/fuzz.h"
#include "i4min/network/protocol.h"
#include "i4min/network/socket.h"
#include "remote/ControllerOpcodes.h"
#include "remote/GUIController.h"
#include "remote/TcpipUI.h"
#include "server/ServerPool.h"
#include "tests/support/files.h"
#include "tests/support/records.h"

namespace {

class QuietUI : public CLUI {
  public:
    void printLine(const char*, ...) override PRINTF_LIKE {}
    void print(const char*, ...) override PRINTF_LIKE {}
    void printVerbose(const char*, ...) override PRINTF_LIKE {}
    void printFlush(const char*, ...) override PRINTF_LIKE {}
    void extending(const char*) override {}
};

class FuzzedController : public Fuzzed<GUIController> {
  public:
    explicit FuzzedController(TcpipUI& ui) : Fuzzed(nullptr, nullptr, ui) {}

    bool handleMessage(u8 opcode, i4_ram_file_class& stream) override {
        if (opcode != CTL_COMMAND) return GUIController::handleMessage(opcode, stream);
        // What the console's commands do isn't this protocol's, and some of them walk over the disk.
        static_cast<void>(i4_string(stream));
        return true;
    }
};

TcpipUI& setUp() {
    static const TemporaryDirectory home;
    preferences.workDir = home.path().c_str();
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
    dlPool.add(*makeFile("wanted.bin", 20'000'000, 0xBB));
    const Ref<FuzzedController> controller(new FuzzedController(ui));
    controller->hearAll(data, size, [&] {
        ui.addResult(makeFile("found.bin", 20'000'000, 0xCC).release());
        controller->sendStatus();
    });
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
