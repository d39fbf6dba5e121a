#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "i4min/network/protocol.h"

namespace {

constexpr int longest_line = 200;

struct ClosePipe {
    void operator()(std::FILE* pipe) const { ::pclose(pipe); }
};

// A name that means nothing to a shell, and no option to the program.
bool isPlainName(std::string_view name) {
    const auto plain = [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
               c == '-' || c == '_';
    };
    return !name.empty() && name.size() <= 255 && name[0] != '-' &&
           std::all_of(name.begin(), name.end(), plain);
}

// The address in a line such as "Address: 10.0.0.1".
bool parseAddressLine(const char* line, u32& out_ip) {
    const char* colon = std::strchr(line, ':');
    if (!colon) return false;
    unsigned parts[4];
    if (std::sscanf(colon + 1, "%3u.%3u.%3u.%3u", &parts[0], &parts[1], &parts[2], &parts[3]) != 4) {
        return false;
    }
    if (std::any_of(std::begin(parts), std::end(parts), [](unsigned part) { return part > 255; })) {
        return false;
    }
    u8 octets[4];
    std::copy(std::begin(parts), std::end(parts), octets);
    std::memcpy(&out_ip, octets, sizeof out_ip);
    return true;
}

}  // namespace

bool i4_nslookup(const char* name, u32& out_ip) {
    if (!name || !isPlainName(name)) return false;
    const std::string command = std::string("nslookup -ret=2 -timeout=2 ") + name;
    ::dprintf(STDERR_FILENO, "\n*** %s **\n", command.c_str());
    const std::unique_ptr<std::FILE, ClosePipe> pipe(::popen(command.c_str(), "re"));
    ::dprintf(STDERR_FILENO, "\n*** popen done fp=%p**\n", static_cast<void*>(pipe.get()));
    if (!pipe) return false;
    char line[longest_line];
    while (std::fgets(line, sizeof line, pipe.get())) {
        ::dprintf(STDERR_FILENO, "\n*** fgets %s**\n", line);
        if (!std::strstr(line, name)) continue;
        if (!std::fgets(line, sizeof line, pipe.get())) return false;
        if (parseAddressLine(line, out_ip)) {
            ::dprintf(STDERR_FILENO, "\n*** found ip **\n");
            return true;
        }
    }
    return false;
}
