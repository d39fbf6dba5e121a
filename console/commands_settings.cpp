// The commands that change settings. A setting lives in Preferences until the next save.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string_view>

#include "console/ConClientApp.h"
#include "console/commands.h"
#include "core/Settings.h"
#include "engine/Engine.h"

namespace {

const char* firstArgument(char* line) { return argumentsOf(line).next(); }

void sayInvalid(const ConClientApp& console) { console.log().printLine("Invalid arguments."); }

// Parses an integer with nothing after it.
std::optional<SettingValue> exactNumber(const char* argument) {
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(argument, &end, 10);
    if (*end || errno != 0 || number != static_cast<i32>(number)) return std::nullopt;
    return SettingValue(static_cast<i32>(number));
}

// Returns the row whose command is the line's first word.
const Setting& settingOf(i4_string line) {
    const std::string_view word = Tokens(&line[0]).next();
    return *std::find_if(std::begin(setting::table), std::end(setting::table),
                         [&](const Setting& row) { return row.command.name && row.command.name == word; });
}

// Parses the new value from the command's line. Empty if nothing is to change; any error is printed here.
std::optional<SettingValue> wishFor(const ConClientApp& console, const Setting& row, char* line) {
    const SettingArgument takes = row.command.takes;
    const bool isLine = takes == SettingArgument::line;
    const char* argument = isLine ? restOfLine(line) : firstArgument(line);
    if (takes == SettingArgument::dash) return SettingValue(argument && argument[0] == '-' ? 0 : 1);
    if (argument && row.isText()) return SettingValue(argument);
    if (argument && takes == SettingArgument::exact) return exactNumber(argument);
    if (argument) {
        const i32 number = numberIn(argument);
        if (row.form.allows(number)) return SettingValue(number);
        if (row.form.type == META_TAG_FLOAT) return SettingValue(std::strtod(row.preset, nullptr));
    }
    if (!isLine && takes != SettingArgument::exact) sayInvalid(console);
    return std::nullopt;
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

void changeSetting(ConClientApp& console, char* line) {
    const Setting& row = settingOf(line);
    const std::optional<SettingValue> wish = wishFor(console, row, line);
    if (!wish) return;
    console.engine().preferences.set(row, *wish);
    console.engine().messageQ.wake();  // the new value may make something due
    if (const char* answer = row.command.answer)
        console.log().printLine("%s%s", answer, row.form.isPath ? orEmpty(wish->text) : "");
}
