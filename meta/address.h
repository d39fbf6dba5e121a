// IPv4 addresses as records hold them: four octets in a u32, the first in the lowest byte, so that write_32
// puts the first octet first. Ports are plain numbers.
#pragma once

#include "i4min/memory/types.h"
#include "i4min/string/string.h"

// Up to this number a client's ID is no address: its server gave it to a client that nobody can reach.
inline constexpr u32 highestLowId = 0xFFFFFF;
inline bool isLowId(u32 id) { return id <= highestLowId; }

i4_string ipToString(u32 ip);
inline void ipToString(u32 ip, i4_string& out) { out = ipToString(ip); }
// Four numbers from 0 to 255 with dots between; blanks and line ends may follow. 0 for all else and for null.
u32 stringToIp(const char* text);
