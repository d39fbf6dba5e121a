#include "app/entry.h"

#include <csignal>
#include <cstdio>

#include "app/ClientApp.h"
#include "app/MessageQ.h"
#include "app/UIInterface.h"
#include "app/version.h"
#include "console/CLUI.h"
#include "console/ConClientApp.h"
#include "i4min/file/output.h"
#include "i4min/memory/error.h"
#include "i4min/threads/linux/i4_time.h"
#include "i4min/threads/linux/linux_threads.h"
#include "meta/tagTable.h"
#include "remote/TcpipUI.h"

namespace {

// `w5` waits five seconds; `w` alone, or w0, doesn't wait.
void waitSeconds(const char* argument) {
    int seconds = 0;
    if (std::sscanf(argument, "w%d", &seconds) != 1) seconds = 0;
    i4_debug_printf("Waiting %d\n", seconds);
    if (seconds > 0) i4_sleep(static_cast<u32>(seconds));
}

// A controller may attach from now on. A user interface lives as long as the process: the last object that
// goes may still print.
void wrapForController() {
    auto* wrapper = new TcpipUI(*theUI.get());
    theUI = wrapper;
    theLog = wrapper;
}

// By the first character: - opens the door for a controller, w waits, ! runs without a console, anything else
// is a console command.
void takeArgument(const char* argument) {
    switch (argument[0]) {
        case '-':
            wrapForController();
            break;
        case 'w':
            waitSeconds(argument);
            break;
        case '!':
            conClientApp.waitForQuit();  // a controller ends it
            break;
        default:
            conClientApp.dispatch(argument);
            break;
    }
}

void takeArguments() {
    LL<i4_string> arguments;
    for (LL<i4_string>::Cursor c; const i4_string* argument = i4_argv.next(c);) {
        arguments.add(new i4_string(*argument));
    }
    LL<i4_string>::Cursor c;
    arguments.next(c);  // the program's name
    while (const i4_string* argument = arguments.next(c)) takeArgument(argument->c_str());
    deleteAll(arguments);
}

}  // namespace

void runApplication(int, char**) {
    std::signal(SIGPIPE, SIG_IGN);
    i4_standard_output().start();
    i4_standard_output().keepMine();
    auto* console = new CLUI;
    theUI = console;
    theLog = console;
    i4_init();
    clientApp.init();
    messageQ.post(MESSAGE_LOAD);
    takeArguments();
    i4_debug_printf("Welcome to Tarnwick command line client v%d.%d.%d.\n", versionMajor, versionMinor,
                    protocolVersion);
    i4_debug_printf("Enter commands at any time (type '?' for help)\n");
    while (conClientApp.running) conClientApp.run();
    clientApp.shutdown();
}
