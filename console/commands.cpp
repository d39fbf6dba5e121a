#include "console/commands.h"

#include "console/ConClientApp.h"
#include "core/Settings.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace {

void quit(ConClientApp& console, char*) {
    if (console.confirm("Are you sure you want to exit")) console.quit();
}

void nothing(ConClientApp&, char*) {}

// Adapts a command of the table to Servant::Handler.
template <void (*command)(ConClientApp&, char*)>
void run(Servant& servant, char* line) {
    command(static_cast<ConClientApp&>(servant), line);
}

// A command: its name and its function. Constant.
struct Row {
    const char* name;
    ServantCommand::Handler handler;
};

constexpr Row table[] = {
    {"?", run<showHelp>},
    {"a", run<shareDirectory>},
    {"a+", run<shareTree>},
    {"n", run<addServer>},
    {"q", run<quit>},
    {"vr", run<viewResults>},
    {"vm", run<viewServers>},
    {"vd", run<viewDownloads>},
    {"vu", run<viewUploads>},
    {"vs", run<viewSharedDirectories>},
    {"vc", run<nothing>},
    {"vf", run<viewSharedFiles>},
    {"vp", run<viewConnections>},
    {"vq", run<viewQueue>},
    {"u", run<unshareDirectory>},
    {"b", run<removeServer>},
    {"c", run<connectToServer>},
    {"d", run<downloadResult>},
    {"m", run<changeDownload>},
    {"s", run<search>},
    {"xs", run<extendSearch>},
    {"t", run<nothing>},
    {"o", run<openCollection>},
    {"p", run<downloadPart>},
    {"pass", run<setController>},
    {"dumax", run<setLimits>},
    {"vo", run<viewOptions>},
    {"g", run<viewServerState>},
    {"x", run<disconnectFromServer>},
    {"space", run<viewDiskSpace>},
    {"dllink", run<downloadLink>},
    {"test", run<runTests>},
};

constexpr const char* helpLines[] = {
    "Commands: (optional arguments)",
    "add new server: n servername",
    "\tExample: n 192.0.2.34",
    "b # : remove server",
    "\tExample: b 2",
    "connect: c (#) [# is the number displayed in the server view]",
    "\tExample: c",
    "\tExample: c 2",
    "search: s searchstring (-searchtype[Audio, Video, Image, Pro, Doc, Col ])",
    "\tExample: s fat day -Audio",
    "view results: vr",
    "extend search: xs",
    "space: show space available and the amount of space needed by downloads",
    "download: d # ",
    "\tExample: d 5",
    "open collection: o # [# is the number displayed in the shared files view]",
    "download part of the opened collection: p #",
    "\tExample: p 2",
    "view downloads: vd",
    "change download: m # [option] [# is the number displayed in the download view]",
    "\toptions: c -cancel the download",
    "\toptions: p -pause the download",
    "\toptions: r -resume the download",
    "\toptions: l -change download priority to low",
    "\toptions: n -change download priority to normal",
    "\toptions: h -change download priority to high",
    "\toptions: v -view the details of the download",
    "g\t\t: get server stats",
    "name [desired name]\t: change your user name",
    "temp [dirname]\t: sets the temp directory.",
    "in [dirname]\t: sets the incoming directory.",
    "lang [string table name]\t: changes the string table used.",
    "dumax # #\t: sets the maximum download and upload bandwidth.(in KB/sec)",
    "line #\t: Sets the maximum possible download speed of your line.(in KB/sec)",
    "auto (-)\t: sets auto connect on or off(-).",
    "save (-)\t: sets 'save corrupted complete downloads' on or off(-).",
    "asr (-)\t: sets 'automatically remove dead servers' on or off(-).",
    "mcon #\t: sets max. number of connections from peers allowed to your machine.",
    "dllink\t: starts a download from an tnwk-link - usage:",
    "dllink tnwk://|file|<filename>|<size in bytes>|<hash>|",
    "pass (name password)\t: sets the name and password to allow a remote controller",
    "\t\t\t of this client. If name ans password are left blank then the username",
    "\t\t\t and password are cleared and no remote control is allowed.",
    "\tExample: pass kit kitpass",
    "verbose (-)\t: sets debugging messages on or off(-).",
    "port #\t: sets the port that you listen for other clients on. Takes effect upon restart.",
    "aport #\t: sets the port that you listen for controllers on. Takes effect upon restart.",
    "vo\tview options",
    "vu\tView Uploads",
    "vq\tView Upload Queue",
    "vm\tview servers",
    "vf\tview shared files",
    "vs\tview shared directories",
    "vp\tview connections to other clients",
    "a dirname\t:add shared directory.",
    "\tExample: a usr/movies",
    "a+ dirname\t:add shared directory include subdirectories",
    "\tExample: a+ c:\\program files",
    "unshared directory: u # ",
    "\tExample: u 7",
    "disconnect: x",
    "quit: q",
    "\nhttps://tarnwick.example",
};

}  // namespace

void addCommands(Servant& servant) {
    for (const Row& row : table) servant.addCommand(row.name, row.handler);
    for (const Setting& row : setting::table)
        if (row.command.name) servant.addCommand(row.command.name, run<changeSetting>);
}

void showHelp(ConClientApp& console, char*) {
    for (const char* line : helpLines) console.log().printLine("%s", line);
}

i32 numberIn(const char* word) {
    constexpr long long least = std::numeric_limits<i32>::min();
    constexpr long long most = std::numeric_limits<i32>::max();
    return static_cast<i32>(std::clamp(std::strtoll(word, nullptr, 10), least, most));
}

std::optional<i32> numberArgument(char* line) {
    const char* number = argumentsOf(line).next();
    return number ? std::optional<i32>(numberIn(number)) : std::nullopt;
}

std::optional<u16> listPlace(std::optional<i32> number) {
    if (!number || *number < 1 || *number > 0xFFFF) return std::nullopt;
    return static_cast<u16>(*number - 1);
}
