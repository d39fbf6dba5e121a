// The commands for servers and searches.
#include <string>

#include "console/ConClientApp.h"
#include "console/commands.h"
#include "engine/Engine.h"
#include "meta/address.h"
#include "server/Search.h"

namespace {

constexpr i32 defaultServerPort = 4661;
constexpr std::size_t longestSearch = 49;  // bytes
constexpr int mostSearchTokens = 4;

// Returns the address of the server at a position of the list, or empty.
std::optional<ServerAddress> serverAt(ServerList& servers, std::optional<u16> place) {
    if (!place) return std::nullopt;
    const i4_guard guard(servers);
    u16 index = 0;
    for (ServerList::Cursor c; const ServerMeta* server = servers.next(c); ++index) {
        if (index == *place) return ServerAddress{server->ip, static_cast<u16>(server->port)};
    }
    return std::nullopt;
}

}  // namespace

void addServer(ConClientApp& console, char* line) {
    Tokens tokens = argumentsOf(line);
    const char* address = tokens.next();
    const char* portText = tokens.next();
    const i32 port = portText ? numberIn(portText) : defaultServerPort;
    if (!address || port < 1 || port > 0xFFFF ||
        !console.engine().serverPool.addServer(stringToIp(address), static_cast<u16>(port))) {
        console.log().printLine("%s", console.engine().stringTable.get(STRINGS_INVALID_ARGUMENTS));
        return;
    }
    console.log().printLine("%s %s\n", address, console.engine().stringTable.get(STRINGS_ADDED));
}

void removeServer(ConClientApp& console, char* line) {
    const std::optional<ServerAddress> address =
        serverAt(console.engine().serverPool.servers(), listPlace(numberArgument(line)));
    if (!address) {
        console.log().printLine("Invalid server number\n");
        return;
    }
    console.engine().serverPool.removeServer(address->ip, address->port);
    console.log().printLine("Server Removed.\n");
}

void connectToServer(ConClientApp& console, char* line) {
    const std::optional<i32> number = numberArgument(line);
    if (!number) {
        console.engine().messageQ.post(MESSAGE_CONNECT);
    } else if (*number == 0) {
        console.log().printLine("Invalid server number\n");
    } else if (const std::optional<ServerAddress> address =
                   serverAt(console.engine().serverPool.servers(), listPlace(number))) {
        console.engine().messageQ.post(MESSAGE_CONNECT, *address);
    }
}

void disconnectFromServer(ConClientApp& console, char*) {
    console.engine().messageQ.post(MESSAGE_DISCONNECT);
}

Ref<Search> searchFor(char* line) {
    Tokens tokens = argumentsOf(line);
    std::string text;
    std::string type;
    for (int i = 0; i < mostSearchTokens; ++i) {
        const char* token = tokens.next();
        if (!token) break;
        if (token[0] == '-') {
            type = token + 1;
        } else {
            text += token;
            text += ' ';
        }
    }
    if (!text.empty()) text.pop_back();
    if (text.size() > longestSearch) text.resize(longestSearch);
    if (text.empty()) return {};
    auto search = makeRef<Search>();
    if (!type.empty()) {
        search->add(std::make_unique<SN_StrTagCompare>(tagTable[TAG_TYPE].wireName, type.c_str()), 0);
    }
    search->add(std::make_unique<SN_FindStr>(text.c_str()), 0);
    return search;
}

void search(ConClientApp& console, char* line) {
    if (Ref<Search> search = searchFor(line)) {
        console.engine().clientApp.startSearch(std::move(search));
    } else {
        console.log().printLine("No search string.\n");
    }
}

void extendSearch(ConClientApp& console, char*) {
    if (!console.engine().clientApp.extendSearch())
        console.log().printLine("%s", console.engine().stringTable.get(STRINGS_NO_SEARCH_EXTEND));
}
