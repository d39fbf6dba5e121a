// The options that are handled before the engine starts: --help, --version, --set-proxy.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "i4min/network/proxy.h"

// Looks for the first of the exact words --help, --version and --set-proxy; `arguments` excludes the
// program's name. Carries it out, ignores the rest and returns the exit status: 0, or 2 if the value of
// --set-proxy is missing, invalid or can't be saved. Returns empty if there is none of these words.
std::optional<int> takeOptions(const std::vector<std::string>& arguments);

// Parses TYPE,HOST,PORT[,USER,PASSWORD]. TYPE is none, socks4, socks5 or http, or its number 0 to 3; with
// none, the rest may be left out. The password is everything after the fourth comma. On failure it returns
// false, `error` holds the reason, and `out` must not be used.
bool readProxySetting(std::string_view value, i4_proxy_settings& out, std::string& error);
