// The commands that change settings. A setting lives in Preferences until the next save.
#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "console/ConClientApp.h"
#include "console/commands.h"
#include "engine/Engine.h"

namespace {

const char* firstArgument(char* line) { return argumentsOf(line).next(); }

// `auto` turns it on, `auto -` off.
i32 onUnlessDash(char* line) {
    const char* argument = firstArgument(line);
    return argument && argument[0] == '-' ? 0 : 1;
}

void sayInvalid(const ConClientApp& console) { console.log().printLine("Invalid arguments."); }

// A port that a command names. Empty, and said, where there is none.
std::optional<u16> portArgument(const ConClientApp& console, char* line) {
    const std::optional<i32> number = numberArgument(line);
    if (!number || *number < 1 || *number > 0xFFFF) {
        sayInvalid(console);
        return std::nullopt;
    }
    return static_cast<u16>(*number);
}

}  // namespace

void setController(ConClientApp& console, char* line) {
    Tokens tokens = argumentsOf(line);
    const char* name = tokens.next();
    const char* password = tokens.next();
    const bool both = name && password;
    console.engine().preferences.setAdmin(both ? name : "", both ? password : "");
}

void setLimits(ConClientApp& console, char* line) {
    Tokens tokens = argumentsOf(line);
    const char* down = tokens.next();
    const char* up = tokens.next();
    if (!down || !up) return sayInvalid(console);
    console.engine().preferences.setMaxUp(static_cast<f32>(std::max(0, numberIn(up))));
    console.engine().preferences.setMaxDown(static_cast<f32>(std::max(0, numberIn(down))));
    console.log().printLine("Done.");
}

void setAutoConnect(ConClientApp& console, char* line) {
    console.engine().preferences.autoConnect = onUnlessDash(line);
    console.engine().messageQ.wake();  // it may be due
}
void setVerbose(ConClientApp& console, char* line) { console.log().setVerbose(onUnlessDash(line) != 0); }
void setSaveCorrupted(ConClientApp& console, char* line) {
    console.engine().preferences.saveCor = onUnlessDash(line);
}
void setRemoveServers(ConClientApp& console, char* line) {
    console.engine().preferences.servRemove = onUnlessDash(line);
}

void setName(ConClientApp& console, char* line) {
    const char* name = firstArgument(line);
    if (!name) return sayInvalid(console);
    console.engine().preferences.setName(name);
    console.log().printLine("ok.");
}

void setPort(ConClientApp& console, char* line) {
    const std::optional<u16> port = portArgument(console, line);
    if (!port) return;
    console.engine().preferences.setDoorPort(*port);
    console.log().printLine("Port will change when you restart.");
}

void setControllerPort(ConClientApp& console, char* line) {
    const std::optional<u16> port = portArgument(console, line);
    if (!port) return;
    console.engine().preferences.adminDoorPort = *port;
    console.log().printLine("Port will change when you restart.");
}

void setTempDirectory(ConClientApp& console, char* line) {
    const char* path = restOfLine(line);
    if (!path) return;
    console.engine().preferences.setTemp(path);
    console.log().printLine("Temp directory is now: %s", path);
}

void setIncomingDirectory(ConClientApp& console, char* line) {
    const char* path = restOfLine(line);
    if (!path) return;
    console.engine().preferences.setIncoming(path);
    console.log().printLine("Incoming directory is now: %s", path);
}

void setLineSpeed(ConClientApp& console, char* line) {
    const std::optional<i32> speed = numberArgument(line);
    if (!speed) return sayInvalid(console);
    console.engine().preferences.lineDown = static_cast<f32>(std::max(0, *speed));
    console.log().printLine("Done.");
}

void setLanguage(ConClientApp& console, char* line) {
    const char* name = firstArgument(line);
    if (!name) return sayInvalid(console);
    console.engine().preferences.setLanguage(name);
    console.log().printLine("ok.");
}

void setMaxConnections(ConClientApp& console, char* line) {
    const char* argument = firstArgument(line);
    if (!argument) return;
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(argument, &end, 10);
    if (*end || errno != 0 || number != static_cast<i32>(number)) return;
    console.engine().preferences.maxCon = static_cast<i32>(number);
    console.log().printLine("Done.");
}
