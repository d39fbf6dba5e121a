// Input at the controller's port: messages, each a u16 length and a body, of which the first is the log-on.
// The engine is real, without threads except the status thread.
#include "console/CLUI.h"
#include "console/ConClientApp.h"
#include "fuzz/fuzz.h"
#include "i4min/network/socket.h"
#include "protocol/ControllerProtocol.h"
#include "remote/GUIController.h"
#include "remote/TcpipUI.h"
#include "tests/support/files.h"
#include "tests/support/records.h"

namespace {

class QuietUI : public CLUI {
  public:
    using CLUI::CLUI;
    void say(Text, const char*, va_list) override {}
    void extending(const char*) override {}
};

class FuzzedController : public Fuzzed<GUIController> {
  public:
    explicit FuzzedController(TcpipUI& ui) : Fuzzed(ui.engine().clientApp.socketPool, ui, nullptr) {}

    bool handleMessage(u8 opcode, i4_ram_file_class& stream) override {
        if (opcode != CTL_COMMAND) return GUIController::handleMessage(opcode, stream);
        // Console commands aren't part of this protocol, and some walk the disk.
        static_cast<void>(i4_string(stream));
        return true;
    }
};

ConClientApp& theConsole() {
    static ConClientApp& console = *new ConClientApp;
    return console;
}

TcpipUI& setUp(ConClientApp& console) {
    OwnEngine& own = quietEngine();
    own.preferences.setAdmin("kit", "pass");
    own.preferences.adminDoorPort = 0;
    own.serverPool.setSocketPool(own.clientApp.socketPool);
    console.attach(own.engine);
    auto* ui = new TcpipUI(own.engine, console, *new QuietUI(console));
    own.engine.ui.replace(*ui);
    return *ui;
}

}  // namespace

FUZZ_TARGET(controller) {
    ConClientApp& console = theConsole();
    static TcpipUI& ui = setUp(console);
    OwnEngine& own = quietEngine();
    std::filesystem::create_directories(own.preferences.tempDir().c_str());
    own.dlPool.add(*makeFile("wanted.bin", 20'000'000, 0xBB));
    const Ref<FuzzedController> controller(new FuzzedController(ui));
    controller->hearAll(data, size, [&] {
        ui.addResult(makeFile("found.bin", 20'000'000, 0xCC));
        controller->sendStatus();
    });
    controller->end();
    while (own.messageQ.process()) continue;
    // Removes the run's leftovers.
    own.serverPool.stopTrying();
    own.serverPool.servers().deleteAll();
    while (Download* download = console.downloads.first()) {
        own.dlPool.remove(Ref<Download>(download));
        console.downloads.drop(download);
    }
    console.results.deleteAll();
    own.clientApp.socketPool.deleteConnections();
    while (own.messageQ.process()) continue;
    std::filesystem::remove_all(own.preferences.tempDir().c_str());
}
