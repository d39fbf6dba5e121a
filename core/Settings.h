// Settings: the table of all settings: where each is stored, its format in the file, and who sets and shows
// it.
#pragma once

#include <limits>
#include <variant>

#include "core/Preferences.h"
#include "i4min/network/proxy.h"
#include "meta/tagTable.h"

// The value of a setting: a text, or a number that can hold any i32 or f32. Converts to the type that is
// needed. A plain value.
struct SettingValue {
    SettingValue(f64 value = 0) : number(value) {}
    SettingValue(const i4_string& value) : text(value) {}
    operator i32() const { return static_cast<i32>(number); }
    operator f32() const { return static_cast<f32>(number); }
    operator const char*() const { return orEmpty(text); }

    f64 number = 0;
    i4_string text;
};

// The settings that a lock guards: texts, and the proxy as one value.
// A plain value. Thread: under the lock of Preferences.
struct SettingTexts : i4_proxy_settings {
    i4_string incoming, temp, userName, userPass, adminName, adminPass, stringFile;
};

// The format of a setting in pref.met. The preset applies if the tag is missing, has another type or is
// outside the limits, or if a text is empty.
struct SettingForm {
    MetaTagType type;
    f64 least = 0;
    f64 most = 0;
    bool isThousandths = false;
    bool isPath = false;  // the preset is a path in the working directory

    constexpr bool allows(f64 value) const { return value >= least && value <= most; }
};

// The argument that a command takes. dash: "-" for 0, anything else for 1. whole: an integer within the
// limits; for a speed, any other integer means the preset. exact: a number with nothing after it. word: one
// word. line: the rest of the line. Other arguments are refused; `exact` and `line` ignore them silently.
enum class SettingArgument : u8 { dash, whole, exact, word, line };

// One setting: a row of the table below. Trailing columns that are left out mean that the setting isn't
// available there. Constant.
struct Setting {
    // A pointer to the value, or the function that returns it.
    using Teller = SettingValue (*)(const Preferences&);
    using Field = std::variant<Relaxed<i32> Preferences::*, Relaxed<f32> Preferences::*, i32 SettingTexts::*,
                               i4_string SettingTexts::*, Teller>;
    struct Command {
        const char* name = nullptr;
        SettingArgument takes = SettingArgument::dash;
        const char* answer = nullptr;
        void (*set)(Preferences&, const SettingValue&) = nullptr;  // null if an assignment is enough
    };
    // Places count from 1 without gaps.
    struct View {
        u8 place = 0;
        const char* label = "";  // followed by a colon and tabs
    };
    struct Place {
        u8 place = 0;
        u8 bytes = 0;  // size of an integer
    };

    // A key of one byte is a tag of the user record; null if the file has no tag of its own for it.
    const char* key;
    SettingForm form;
    Field field;
    const char* preset;  // as stored in pref.met, in decimal
    Command command{};   // of the console
    View view{};         // in `vo`
    Place message{};     // in the settings message to controllers
    Place firstRun{};    // in the tags that a first run writes first

    constexpr bool isText() const { return form.type == META_TAG_STRING; }
    constexpr bool isInUserRecord() const { return key && key[0] && !key[1]; }
};

namespace setting {

using P = Preferences;
using T = SettingTexts;
using enum SettingArgument;

// Adapters for settings that are accessed through functions of Preferences.
template <auto member>
SettingValue of(const P& preferences) {
    return (preferences.*member)();
}
template <auto member>
void by(P& preferences, const SettingValue& value) {
    (preferences.*member)(value);
}

template <class Number>
using Range = std::numeric_limits<Number>;
inline constexpr SettingForm integer{META_TAG_INT, Range<i32>::min(), Range<i32>::max()};
inline constexpr SettingForm unread{META_TAG_INT, 1, 0};     // saved, but never read back
inline constexpr SettingForm door{META_TAG_INT, 1, 0xFFFF};  // a port
inline constexpr SettingForm speed{META_TAG_FLOAT, Range<f32>::denorm_min(), Range<f32>::max()};  // KB/s
inline constexpr SettingForm estimate{META_TAG_INT, 1, Range<u32>::max(), true};                  // KB/s
inline constexpr SettingForm text{META_TAG_STRING};
inline constexpr SettingForm path{META_TAG_STRING, 0, 0, false, true};
inline constexpr const char* soon = "Port will change when you restart.";
inline constexpr const char* inIs = "Incoming directory is now: ";
inline constexpr const char* tempIs = "Temp directory is now: ";

// In the order in which missing settings are added to the file.
inline constexpr Setting table[] = {
    {nullptr, text, of<&P::getName>, "", {"name", word, "ok.", by<&P::setName>}, {1, "Name"}, {5}},
    {nullptr, integer, of<&P::isVerbose>, "0", {"verbose", dash, {}, by<&P::setVerbose>}, {10, "Verbose"}},
    {"\17", door, &P::doorPort, "4662", {"port", whole, soon, by<&P::setDoorPort>}, {8, "Door Port"}, {3, 2}},
    {"pmAllow", integer, &P::pmAllow, "0", {}, {}, {10, 1}},
    {"pSize", unread, &P::pSize, "184320", {}, {}, {}, {3}},
    {"maxNumUp", unread, &P::maxNumUp, "5", {}, {}, {}, {4}},
    {"userMaxUpF", speed, &P::userMaxUpF, "0", {}, {6, "Max Upload Speed"}, {2}},
    {"userMaxDownF", speed, &P::userMaxDownF, "0", {}, {5, "Max Download Speed"}, {1}},
    {"maxDown", integer, &P::maxDown, "5", {}, {}, {}, {5}},
    {"maxCon", integer, &P::maxCon, "45", {"mcon", exact, "Done."}, {13, "MaxConnections"}, {4, 2}},
    {"incoming", path, &T::incoming, "incoming", {"in", line, inIs, by<&P::setIncoming>}, {}, {7}, {1}},
    {"temp", path, &T::temp, "temp", {"temp", line, tempIs, by<&P::setTemp>}, {}, {6}, {2}},
    {"adminName", text, &T::adminName, "", {}, {2, "AdminName"}, {}, {6}},
    {"adminPass", text, &T::adminPass, "", {}, {3, "AdminPass"}, {}, {7}},
    {"auto", integer, &P::autoConnect, "0", {"auto", dash}, {9, "AutoConnect"}, {8, 1}},
    {"saveCor", integer, &P::saveCor, "1", {"save", dash}, {11, "SaveCorrupted"}, {11, 1}},
    {"verifyCancel", integer, &P::verifyCancel, "1", {}, {}, {12, 1}},
    {"trayCheck", integer, &P::trayCheck, "1"},
    {"servRemove", integer, &P::servRemove, "1", {"asr", dash}, {12, "AutoServerRemove"}, {9, 1}},
    {"userName", text, &T::userName, ""},
    {"password", text, &T::userPass, ""},
    {"ipOver", integer, &P::ipOver, "0"},
    {"lang", text, &T::stringFile, "default.str", {"lang", word, "ok.", by<&P::setLanguage>}},
    {"lineDown", speed, &P::lineDown, "0", {"line", whole, "Done."}, {7, "Line Speed Down"}},
    {"adminDoorPort", door, &P::adminDoorPort, "4663", {"aport", whole, soon}, {4, "AdminPort"}, {13, 2}},
    {"maxUpSpeed", estimate, &P::maxUpSpeed, "5000"},
    {"maxDownSpeed", estimate, &P::maxDownSpeed, "5000"},
    {"pType", integer, &T::pType, "0"},
    {"pSName", text, &T::server, ""},
    {"pUName", text, &T::user, ""},
    {"pUPass", text, &T::password, ""},
    {"pPort", integer, &T::port, "0"},
};

// Returns the row with this place in a column such as &Setting::view, or null after the last one.
template <class Column>
const Setting* at(u8 place, Column Setting::*column) {
    for (const Setting& row : table)
        if ((row.*column).place == place) return &row;
    return nullptr;
}

}  // namespace setting
