// Core: the services that every module of the engine gets.
#pragma once

#include "core/MessageQ.h"
#include "core/Preferences.h"
#include "core/StateFiles.h"
#include "core/StringTable.h"
#include "core/UIInterface.h"
#include "host/Host.h"

// References only.
// Thread: as each member says. The referenced objects must outlive everything that holds a Core.
struct Core {
    Host& host;
    UIInterface& log;
    StringTable& strings;
    Preferences& preferences;
    StateFiles& files;
    MessageQ& messages;
};
