// The commands that change settings. A setting lives in Preferences until the next save.
#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "app/Preferences.h"
#include "app/UIInterface.h"
#include "console/ConClientApp.h"
#include "console/commands.h"

namespace {

const char* firstArgument(char* line) { return argumentsOf(line).next(); }

// `auto` turns it on, `auto -` off.
i32 onUnlessDash(char* line) {
    const char* argument = firstArgument(line);
    return argument && argument[0] == '-' ? 0 : 1;
}

void sayInvalid() { theLog->printLine("Invalid arguments."); }

// A port that a command names. Empty, and said, where there is none.
std::optional<u16> portArgument(char* line) {
    const std::optional<i32> number = numberArgument(line);
    if (!number || *number < 1 || *number > 0xFFFF) {
        sayInvalid();
        return std::nullopt;
    }
    return static_cast<u16>(*number);
}

}  // namespace

void setController(Servant&, char* line) {
    Tokens tokens = argumentsOf(line);
    const char* name = tokens.next();
    const char* password = tokens.next();
    const bool both = name && password;
    preferences.setAdmin(both ? name : "", both ? password : "");
}

void setLimits(Servant&, char* line) {
    Tokens tokens = argumentsOf(line);
    const char* down = tokens.next();
    const char* up = tokens.next();
    if (!down || !up) return sayInvalid();
    preferences.setMaxUp(static_cast<f32>(std::max(0, numberIn(up))));
    preferences.setMaxDown(static_cast<f32>(std::max(0, numberIn(down))));
    theLog->printLine("Done.");
}

void setAutoConnect(Servant&, char* line) { preferences.autoConnect = onUnlessDash(line); }
void setVerbose(Servant&, char* line) { theLog->verbose = static_cast<u8>(onUnlessDash(line)); }
void setSaveCorrupted(Servant&, char* line) { preferences.saveCor = onUnlessDash(line); }
void setRemoveServers(Servant&, char* line) { preferences.servRemove = onUnlessDash(line); }

void setName(Servant&, char* line) {
    const char* name = firstArgument(line);
    if (!name) return sayInvalid();
    preferences.setName(name);
    theLog->printLine("ok.");
}

void setPort(Servant&, char* line) {
    const std::optional<u16> port = portArgument(line);
    if (!port) return;
    preferences.setDoorPort(*port);
    theLog->printLine("Port will change when you restart.");
}

void setControllerPort(Servant&, char* line) {
    const std::optional<u16> port = portArgument(line);
    if (!port) return;
    preferences.adminDoorPort = *port;
    theLog->printLine("Port will change when you restart.");
}

void setTempDirectory(Servant&, char* line) {
    const char* path = restOfLine(line);
    if (!path) return;
    preferences.setTemp(path);
    theLog->printLine("Temp directory is now: %s", path);
}

void setIncomingDirectory(Servant&, char* line) {
    const char* path = restOfLine(line);
    if (!path) return;
    preferences.setIncoming(path);
    theLog->printLine("Incoming directory is now: %s", path);
}

void setLineSpeed(Servant&, char* line) {
    const std::optional<i32> speed = numberArgument(line);
    if (!speed) return sayInvalid();
    preferences.lineDown = static_cast<f32>(std::max(0, *speed));
    theLog->printLine("Done.");
}

void setLanguage(Servant&, char* line) {
    const char* name = firstArgument(line);
    if (!name) return sayInvalid();
    preferences.setLanguage(name);
    theLog->printLine("ok.");
}

void setMaxConnections(Servant&, char* line) {
    const char* argument = firstArgument(line);
    if (!argument) return;
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(argument, &end, 10);
    if (*end || errno != 0 || number != static_cast<i32>(number)) return;
    preferences.maxCon = static_cast<i32>(number);
    theLog->printLine("Done.");
}
