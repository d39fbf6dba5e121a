// Whether this is a debug build, which checks itself and aborts where something doesn't hold: the order of
// locks, the threads of calls, the inside of containers. A release build pays nothing for it.
#pragma once

#ifdef NDEBUG
inline constexpr bool debugBuild = false;
#else
inline constexpr bool debugBuild = true;
#endif
