// The version of the program. The last number is also the version that servers, peers and controllers are
// told.
#pragma once

#include "i4min/memory/types.h"

inline constexpr int versionMajor = 16;
inline constexpr int versionMinor = 16;
inline constexpr u32 protocolVersion = 59;
