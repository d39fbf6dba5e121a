// CLUI, the console's user interface object: turns the engine's events into printed lines and into entries of
// the lists of ConClientApp.
#pragma once

#include "app/UIInterface.h"

// Thread: any, at the same time.
class CLUI : public CoreUIInterface {};
