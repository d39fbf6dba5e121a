#include "app/options.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "engine/Engine.h"
#include "host/PosixHost.h"
#include "i4min/file/filesystem.h"
#include "protocol/version.h"

namespace {

constexpr int wrong = 2;  // exit status
constexpr std::size_t longestField = 255;
constexpr const char* setProxy = "--set-proxy";

constexpr char help[] =
    "Usage: tarnwick [ARGUMENT]...\n"
    "The command-line client of a peer-to-peer file-sharing network. The current directory\n"
    "holds its settings, lists and downloads.\n"
    "\n"
    "  -              open the port for a remote controller\n"
    "  wSECONDS       wait before the next argument\n"
    "  !              run without a console until a controller ends the client\n"
    "  COMMAND        a console command, quoted if it has blanks in it; ? lists them all\n"
    "\n"
    "  --set-proxy TYPE,HOST,PORT[,USER,PASSWORD]\n"
    "                 store the proxy to go through from the next start on, and exit; TYPE is\n"
    "                 socks4, socks5 or http; --set-proxy none goes without again\n"
    "  --help         print this and exit\n"
    "  --version      print the version and exit\n";

// A type of proxy: its word and number on the command line, and the name to print. Constant.
struct ProxyType {
    const char* word;
    const char* number;
    i4_proxy_type type;
    const char* title;
};
constexpr ProxyType proxyTypes[] = {
    {"none", "0", I4_PROXY_NONE, "no"},
    {"socks4", "1", I4_PROXY_SOCKS4, "SOCKS4"},
    {"socks5", "2", I4_PROXY_SOCKS5, "SOCKS5"},
    {"http", "3", I4_PROXY_HTTP, "HTTP"},
};

// Takes the text up to the next comma, and drops the comma.
std::string_view takeField(std::string_view& text) {
    const std::size_t comma = text.find(',');
    const std::string_view field = text.substr(0, comma);
    text.remove_prefix(comma == std::string_view::npos ? text.size() : comma + 1);
    return field;
}

bool isHost(std::string_view text) {
    return !text.empty() && text.size() <= longestField && std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte > ' ' && byte != 0x7f;
    });
}

bool isCredential(std::string_view text) {
    return !text.empty() && text.size() <= longestField &&
           std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) >= ' '; });
}

i4_string textOf(std::string_view text) { return i4_string(text.data(), text.size()); }

// Reads what follows the port.
bool readCredentials(std::string_view rest, i4_proxy_settings& out, std::string& error) {
    const bool hasPassword = rest.find(',') != std::string_view::npos;
    const std::string_view user = takeField(rest);
    if (!hasPassword) {
        error = "a user needs a password behind it";
    } else if (!isCredential(user) || !isCredential(rest)) {
        error = "user and password take 1 to 255 characters each";
    } else if (out.pType == I4_PROXY_HTTP && user.find(':') != std::string_view::npos) {
        error = "the user of an HTTP proxy can't have a colon in it";
    }
    out.user = textOf(user);
    out.password = textOf(rest);
    return error.empty();
}

std::string described(const i4_proxy_settings& proxy) {
    if (!proxy.inForce()) return "no proxy";
    std::string text = std::string(proxyTypes[proxy.pType].title) + " proxy " + proxy.server.c_str() +
                       ", port " + std::to_string(proxy.port);
    if (!proxy.user.isNull()) text += std::string(", user ") + proxy.user.c_str();
    return text;
}

int refuse(const std::string& error) {
    std::fprintf(stderr, "tarnwick: %s: %s. Nothing is stored.\nTry tarnwick --help\n", setProxy,
                 error.c_str());
    return wrong;
}

int storeProxy(const std::string* value) {
    i4_proxy_settings proxy;
    std::string error;
    if (!value) return refuse("a value must follow: TYPE,HOST,PORT[,USER,PASSWORD]");
    if (!readProxySetting(*value, proxy, error)) return refuse(error);
    i4_string workDir;
    if (!i4_get_cwd(workDir)) workDir = "";
    PosixHost host;
    CoreUIInterface ui;
    Engine engine(host.host, workDir.c_str(), ui);
    Preferences& preferences = engine.preferences;
    preferences.load();
    preferences.setProxy(proxy);
    if (!preferences.save()) return wrong;
    std::printf("Stored in %s: %s. It holds from the next start on.\n", preferences.prefPath.c_str(),
                described(proxy).c_str());
    return 0;
}

}  // namespace

bool readProxySetting(std::string_view value, i4_proxy_settings& out, std::string& error) {
    error.clear();
    out = i4_proxy_settings();
    const std::string_view word = takeField(value);
    const ProxyType* type = std::find_if(std::begin(proxyTypes), std::end(proxyTypes), [&](const auto& one) {
        return word == one.word || word == one.number;
    });
    if (type == std::end(proxyTypes)) {
        error = "the type must be none, socks4, socks5 or http";
        return false;
    }
    if (type->type == I4_PROXY_NONE) return true;
    out.pType = type->type;
    const std::string_view host = takeField(value);
    const bool hasCredentials = value.find(',') != std::string_view::npos;
    const std::string_view port = takeField(value);
    const char* end = port.data() + port.size();
    const auto [stop, failure] = std::from_chars(port.data(), end, out.port);
    out.server = textOf(host);
    if (!isHost(host)) {
        error = "the host must be a name or an address of 1 to 255 characters";
    } else if (failure != std::errc() || stop != end || out.port < 1 || out.port > 0xFFFF) {
        error = "the port must be a number from 1 to 65535";
    }
    return error.empty() && (!hasCredentials || readCredentials(value, out, error));
}

std::optional<int> takeOptions(const std::vector<std::string>& arguments) {
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--help") return std::fputs(help, stdout) < 0 ? wrong : 0;
        if (arguments[i] == "--version") {
            std::printf("tarnwick %d.%d.%u\n", versionMajor, versionMinor, protocolVersion);
            return 0;
        }
        if (arguments[i] == setProxy) {
            return storeProxy(i + 1 < arguments.size() ? &arguments[i + 1] : nullptr);
        }
    }
    return std::nullopt;
}
