#include "meta/address.h"

i4_string ipToString(u32 ip) {
    i4_string text;
    text.format("%d.%d.%d.%d", static_cast<int>(ip & 255), static_cast<int>(ip >> 8 & 255),
                static_cast<int>(ip >> 16 & 255), static_cast<int>(ip >> 24));
    return text;
}

u32 stringToIp(const char* text) {
    if (!text) return 0;
    u32 ip = 0;
    for (u32 shift = 0; shift < 32; shift += 8) {
        if (shift > 0 && *text++ != '.') return 0;
        if (*text < '0' || *text > '9') return 0;
        u32 octet = 0;
        for (; *text >= '0' && *text <= '9'; ++text) {
            octet = octet * 10 + static_cast<u32>(*text - '0');
            if (octet > 255) return 0;
        }
        ip |= octet << shift;
    }
    while (*text == '\n' || *text == '\r' || *text == ' ' || *text == '\t') ++text;
    return *text ? 0 : ip;
}
