#include "console/ConClientApp.h"

#include "console/commands.h"

ConClientApp::ConClientApp() { addCommands(*this); }

ConClientApp::~ConClientApp() {
    while (Download* download = downloads.removeAt(0)) download->release();
    while (Upload* upload = uploads.removeAt(0)) upload->release();
}
