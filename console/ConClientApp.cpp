#include "console/ConClientApp.h"

#include "console/commands.h"

ConClientApp::ConClientApp() { addCommands(*this); }
