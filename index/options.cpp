#include "index/options.h"

#include <charconv>
#include <functional>
#include <map>

#include "meta/address.h"

const char indexHelp[] =
    "Usage: tarnwick-index [OPTION]...\n"
    "An index server for a private network of Tarnwick clients.\n"
    "\n"
    "  --port N               TCP port, and 4 above it the port for datagrams; 0 lets the system\n"
    "                         choose (4661)\n"
    "  --bind ADDRESS         listen on this IPv4 address alone (all)\n"
    "  --name TEXT            name that clients show (tarnwick-index)\n"
    "  --description TEXT     description that clients show\n"
    "  --message TEXT         message that each client gets when it logs on\n"
    "  --peer-server IP:PORT  another server that clients are told of; may be given up to 255 times\n"
    "  --max-clients N        clients at a time, 1 to 50000 (2000)\n"
    "  --log LEVEL            quiet, info or debug: how much is told on standard output (info)\n"
    "  --help                 print this and exit\n"
    "  --version              print the version and exit\n";

namespace {

constexpr u32 mostClients = 50'000;
constexpr std::size_t mostPeers = 255;
constexpr std::size_t longestText = 4000;

bool readNumber(const std::string& text, u32 least, u32 most, u32& out) {
    u32 value = 0;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, value);
    if (error != std::errc() || stop != end || value < least || value > most) return false;
    out = value;
    return true;
}

bool readText(const std::string& text, std::string& out) {
    out = text;
    return text.size() <= longestText;
}

bool readServer(const std::string& text, std::vector<NetAddress>& out) {
    const std::size_t colon = text.find(':');
    NetAddress server;
    if (colon == std::string::npos || out.size() >= mostPeers) return false;
    server.ip = stringToIp(text.substr(0, colon).c_str());
    if (server.ip == 0 || !readNumber(text.substr(colon + 1), 1, 0xFFFF, server.port)) return false;
    out.push_back(server);
    return true;
}

bool readLevel(const std::string& text, EventLog::Level& out) {
    const std::map<std::string, EventLog::Level> levels = {{"quiet", EventLog::Level::quiet},
                                                           {"info", EventLog::Level::info},
                                                           {"debug", EventLog::Level::debug}};
    const auto found = levels.find(text);
    if (found != levels.end()) out = found->second;
    return found != levels.end();
}

}  // namespace

bool readOptions(const std::vector<std::string>& arguments, IndexOptions& options, std::string& error) {
    IndexIdentity& identity = options.identity;
    const std::map<std::string, std::function<bool(const std::string&)>> values = {
        {"--port", [&](const std::string& text) { return readNumber(text, 0, 0xFFFF - 4, options.port); }},
        {"--bind",
         [&](const std::string& text) {
             return (options.ip = stringToIp(text.c_str())) != 0 || text == "0.0.0.0";
         }},
        {"--name", [&](const std::string& text) { return readText(text, identity.name); }},
        {"--description", [&](const std::string& text) { return readText(text, identity.description); }},
        {"--message", [&](const std::string& text) { return readText(text, identity.message); }},
        {"--peer-server", [&](const std::string& text) { return readServer(text, identity.peerServers); }},
        {"--max-clients",
         [&](const std::string& text) { return readNumber(text, 1, mostClients, identity.maxClients); }},
        {"--log", [&](const std::string& text) { return readLevel(text, options.level); }},
    };
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "--version") {
            (argument == "--help" ? options.help : options.version) = true;
            continue;
        }
        const std::size_t equals = argument.find('=');
        const std::string option = argument.substr(0, equals);
        const auto found = values.find(option);
        if (found == values.end()) {
            error = "unknown option " + argument;
            return false;
        }
        if (equals == std::string::npos && i + 1 == arguments.size()) {
            error = option + " wants a value";
            return false;
        }
        const std::string value = equals == std::string::npos ? arguments[++i] : argument.substr(equals + 1);
        if (!found->second(value)) {
            error = option + " can't be " + value;
            return false;
        }
    }
    return true;
}
