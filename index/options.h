// The command line of tarnwick-index.
#pragma once

#include <string>
#include <vector>

#include "index/EventLog.h"
#include "index/IndexService.h"

struct IndexOptions {
    u32 port = 4661;
    u32 ip = 0;  // every address
    IndexIdentity identity;
    EventLog::Level level = EventLog::Level::info;
    bool help = false;
    bool version = false;
};

extern const char indexHelp[];

// Reads the arguments behind the program's name; each option's value stands behind it, or behind a `=`. False
// where they can't be understood: `error` then says what is wrong.
bool readOptions(const std::vector<std::string>& arguments, IndexOptions& options, std::string& error);
