#include "app/entry.h"

#include <csignal>
#include <cstdio>
#include <memory>
#include <vector>

#include "console/CLUI.h"
#include "console/ConClientApp.h"
#include "engine/Engine.h"
#include "host/PosixHost.h"
#include "i4min/file/filesystem.h"
#include "i4min/file/output.h"
#include "i4min/memory/error.h"
#include "i4min/threads/linux/i4_time.h"
#include "i4min/threads/linux/linux_threads.h"
#include "protocol/version.h"
#include "remote/TcpipUI.h"

namespace {

// `w5` waits five seconds; `w` and `w0` don't wait.
void waitSeconds(const char* argument) {
    int seconds = 0;
    if (std::sscanf(argument, "w%d", &seconds) != 1) seconds = 0;
    i4_debug_printf("Waiting %d\n", seconds);
    if (seconds > 0) i4_sleep(static_cast<u32>(seconds));
}

// What the process runs: a console and an engine. Destroyed in reverse order, so the interfaces outlive the
// engine.
// Thread: entry. Owns: all of its members.
class Application {
  public:
    explicit Application(const char* workDir) : engine_(host_.host, workDir, consoleUI_) {
        console_.attach(engine_);
    }
    ~Application() { console_.detach(); }

    void run(ExtendConsole extend) {
        if (extend) extend(console_);
        i4_init();
        engine_.clientApp.init();
        engine_.messageQ.post(MESSAGE_LOAD);
        takeArguments();
        i4_debug_printf("Welcome to Tarnwick command line client v%d.%d.%d.\n", versionMajor, versionMinor,
                        protocolVersion);
        i4_debug_printf("Enter commands at any time (type '?' for help)\n");
        while (console_.running) console_.run();
        engine_.clientApp.shutdown();
        i4_uninit();
    }

  private:
    void takeArguments() {
        LL<i4_string>::Cursor c;
        i4_argv.next(c);  // the program's name
        while (const i4_string* argument = i4_argv.next(c)) takeArgument(argument->c_str());
    }
    // By the first character: - opens the listener for controllers, w waits, ! runs without a console,
    // anything else is a console command.
    void takeArgument(const char* argument) {
        switch (argument[0]) {
            case '-':
                controllers_.push_back(std::make_unique<TcpipUI>(engine_, console_, engine_.ui.target()));
                engine_.ui.replace(*controllers_.back());
                break;
            case 'w':
                waitSeconds(argument);
                break;
            case '!':
                console_.waitForQuit();  // until a controller ends it
                break;
            default:
                console_.dispatch(argument);
                break;
        }
    }

    PosixHost host_;
    // The interfaces outlive the engine, which uses them until its end.
    ConClientApp console_;
    CLUI consoleUI_{console_};
    std::vector<std::unique_ptr<TcpipUI>> controllers_;
    Engine engine_;
};

}  // namespace

void runConsole(ExtendConsole extend) {
    std::signal(SIGPIPE, SIG_IGN);
    i4_standard_output().start();
    i4_standard_output().keepMine();
    i4_string workDir;
    if (!i4_get_cwd(workDir)) workDir = "";
    Application(workDir.c_str()).run(extend);
}

void runApplication(int, char**) { runConsole(nullptr); }
