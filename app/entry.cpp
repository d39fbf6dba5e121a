#include "app/entry.h"

#include "app/version.h"
#include "i4min/memory/error.h"

void runApplication(int, char**) {
    i4_debug_printf("Welcome to Tarnwick command line client v%d.%d.%d.\n", versionMajor, versionMinor,
                    protocolVersion);
}
