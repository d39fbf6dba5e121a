// What the program does before it starts the engine: --help, --version, --set-proxy.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "i4min/network/proxy.h"

// Takes the first of the exact words --help, --version and --set-proxy among the arguments, without the
// program's name, and does what it asks: the rest isn't looked at. Gives the exit status of the process: 0,
// or 2 where the value behind --set-proxy is none or can't be stored. Nothing where none of the words is
// there: the arguments then go to the engine.
std::optional<int> takeOptions(const std::vector<std::string>& arguments);

// Reads TYPE,HOST,PORT[,USER,PASSWORD]; TYPE is none, socks4, socks5 or http, or its number 0 to 3. Behind
// none, nothing else has to stand. The password is all that stands behind the fourth comma. False, with what
// is wrong in `error`, where `out` is not to be used.
bool readProxySetting(std::string_view value, i4_proxy_settings& out, std::string& error);
